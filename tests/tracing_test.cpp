// Tracing: the line writer against the capturing tracer, the prefix tracer and its
// flattening, the host-tracer lookup, and the text forms of property bags, key/value
// events and dates. Dates are checked in UTC so the expected texts are fixed.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <stdexcept>
#include <string>

#include "framework/qeb/exception.h"
#include "nox_tracing/date_text.h"
#include "nox_tracing/key_value_event.h"
#include "nox_tracing/prefix_tracer.h"
#include "nox_tracing/trace_values.h"
#include "nox_tracing/tracing.h"
#include "testing/capturing_tracer.h"
#include "testing/fake_service_locator.h"
#include "testing/host_object.h"

namespace qeb::trace {
namespace {

using qeb::testing::CapturingTracer;
using qeb::testing::MakeHostObject;

objptr_t<CapturingTracer> MakeTracer() { return MakeHostObject<CapturingTracer>(); }

std::string OnlyLine(const CapturingTracer& t) {
  const auto lines = t.Lines();
  return lines.size() == 1 ? lines[0].text : "<" + std::to_string(lines.size()) + " lines>";
}

// ---- the line writer ----

TEST(TraceLine, NullTracerMakesEveryHelperDoNothing) {
  ITracer* none = nullptr;
  EXPECT_FALSE(IsEnabled(none, LevelError));
  Line line(none, LevelError);
  EXPECT_FALSE(line);
  line << "text" << 42 << hex << 7u << 1.5 << nullptr << AsResult(res::InvalidArgument) << u"wide";
  EXPECT_EQ(line.Text(), "");
  bool evaluated = false;
  QEB_TRACE(none, LevelError) << (evaluated = true);
  EXPECT_FALSE(evaluated);
  EXPECT_FALSE(PrefixTracer::Create(nullptr, "p::"));
}

TEST(TraceLine, DisabledOrFailingLevelFormatsNothing) {
  auto t = MakeTracer();
  t->EnableUpTo(LevelNotice);
  bool evaluated = false;
  QEB_TRACE(t, LevelDetail) << "x" << (evaluated = true);
  EXPECT_FALSE(evaluated);
  EXPECT_EQ(t->RecordRequests(), 1u);
  EXPECT_TRUE(t->Lines().empty());

  t->FailRecords(res::Unexpected);
  QEB_TRACE(t, LevelError) << "y";
  EXPECT_EQ(t->RecordRequests(), 2u);
  EXPECT_TRUE(t->Lines().empty());
}

TEST(TraceLine, GrowthKeepsTheWholeLine) {
  auto t = MakeTracer();
  std::string expected;
  {
    Line line(t, LevelDetail);
    // Small pieces cross 512, 1024 and 2048; the single large one outgrows doubling.
    for (int i = 0; i < 300; ++i) {
      line << "piece" << i << ';';
      expected += "piece" + std::to_string(i) + ';';
    }
    const std::string big(9000, 'z');
    line << big << "end";
    expected += big + "end";
  }
  EXPECT_EQ(OnlyLine(*t), expected);
  EXPECT_EQ(t->Lines()[0].level, LevelDetail);
}

TEST(TraceLine, NumberAndValueForms) {
  auto t = MakeTracer();
  QEB_TRACE(t, LevelDetail) << 255 << ' ' << hex << 255 << ' ' << -1 << ' ' << oct << 8 << ' ' << 0
                            << ' ' << dec << -42 << ' ' << uint64_t{18446744073709551615ull};
  QEB_TRACE(t, LevelDetail) << AsResult(res::InvalidArgument) << '|' << nullptr << '|'
                            << UntypedValueHolder{} << '|' << u"\u00e9t\u00e9";
  QEB_TRACE(t, LevelDetail) << 3.14159265 << '|' << Precision{2} << 2.5 << '|' << Width{8} << 1.0
                            << '|' << Precision{3} << Width{0} << Scientific{12345.678};
  const auto lines = t->Lines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].text, "255 0xff 0xffffffff 010 0 -42 18446744073709551615");
  EXPECT_EQ(lines[1].text,
            "0x80000046 (Invalid argument)|null|anydescrptr_holder_t<void>|\xc3\xa9t\xc3\xa9");
  EXPECT_EQ(lines[2].text, "3.141593|2.50|    1.00|1.235e+04");
}

// ---- the prefix tracer ----

std::string PrefixOf(ITracer* tracer) {
  objptr_t<IPrefixTracer> p;
  if (QEB_FAILED(QueryInterface(tracer, p.Ref()))) return "<not a prefix tracer>";
  const char* text = nullptr;
  size_t length = 0;
  p->GetPrefix(&text, &length);
  return std::string(text, length);
}

ITracer* InnerOf(ITracer* tracer) {
  objptr_t<IPrefixTracer> p;
  objptr_t<ITracer> inner;
  if (QEB_FAILED(QueryInterface(tracer, p.Ref()))) return nullptr;
  p->GetInnerTracer(inner.Ref());
  return inner.Get();  // still held by the prefix tracer
}

TEST(PrefixTracer, WritesPrefixThenTextAtTheCallersLevel) {
  auto t = MakeTracer();
  const uint32_t before = module::ObjectCount();
  auto p = PrefixTracer::Create(t.Get(), "OAS: ");
  EXPECT_EQ(module::ObjectCount(), before + 1);
  const std::string longText(1500, 'L');
  QEB_TRACE(p, LevelError) << "short " << 1;
  QEB_TRACE(p, LevelDetail) << longText;
  QEB_TRACE(p, 900) << "off";
  // Prefixes leaving the inner buffer too little room take the joining paths.
  const std::string mid(450, 'm'), huge(700, 'h');
  QEB_TRACE(PrefixTracer::Create(t.Get(), mid), LevelDetail) << "a";
  QEB_TRACE(PrefixTracer::Create(t.Get(), huge), LevelDetail) << "b";
  QEB_TRACE(PrefixTracer::Create(t.Get(), mid), LevelDetail) << longText;
  const auto lines = t->Lines();
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_EQ(lines[0].level, LevelError);
  EXPECT_EQ(lines[0].text, "OAS: short 1");
  EXPECT_EQ(lines[1].level, LevelDetail);
  EXPECT_EQ(lines[1].text, "OAS: " + longText);
  EXPECT_EQ(lines[2].text, mid + "a");
  EXPECT_EQ(lines[3].text, huge + "b");
  EXPECT_EQ(lines[4].text, mid + longText);
  p = nullptr;
  EXPECT_EQ(module::ObjectCount(), before);
}

// A prefix tracer that names itself as its inner tracer must not loop the flattening.
class SelfWrappingTracer : public object::Ifaces<ITracer, IPrefixTracer> {
 public:
  result_t CreateRecord(uint32_t, ITraceRecord** record) noexcept override {
    *record = nullptr;
    return res::False;
  }
  result_t CommitRecord(ITraceRecord*, const char*, size_t) noexcept override { return 0; }
  result_t GetPrefix(const char** prefix, size_t* length) noexcept override {
    *prefix = "self::";
    *length = 6;
    return 0;
  }
  result_t GetInnerTracer(ITracer** inner) noexcept override {
    AddRef();
    *inner = this;
    return 0;
  }
};

TEST(PrefixTracer, FlattensOnlyScopePrefixes) {
  auto t = MakeTracer();
  auto scoped = PrefixTracer::Create(t.Get(), "a::");
  auto merged = PrefixTracer::Create(scoped.Get(), "b");
  EXPECT_EQ(PrefixOf(merged.Get()), "a::b");
  EXPECT_EQ(InnerOf(merged.Get()), static_cast<ITracer*>(t.Get()));

  auto plain = PrefixTracer::Create(t.Get(), "a");
  auto stacked = PrefixTracer::Create(plain.Get(), "b");
  EXPECT_EQ(PrefixOf(stacked.Get()), "b");
  EXPECT_EQ(InnerOf(stacked.Get()), plain.Get());

  // A scope prefix over a plain one flattens down to the plain one and stops there.
  auto scopeOverPlain = PrefixTracer::Create(plain.Get(), "b::");
  auto chain = PrefixTracer::Create(scopeOverPlain.Get(), "c");
  EXPECT_EQ(PrefixOf(chain.Get()), "b::c");
  EXPECT_EQ(InnerOf(chain.Get()), plain.Get());
  QEB_TRACE(chain, LevelDetail) << "x";
  QEB_TRACE(PrefixTracer::Create(t.Get(), ":"), LevelDetail) << "y";  // one colon: no scope
  EXPECT_EQ(t->Texts(LevelDetail), (std::vector<std::string>{"ab::cx", ":y"}));

  auto self = MakeHostObject<SelfWrappingTracer>();
  auto overSelf = PrefixTracer::Create(self.Get(), "x");
  EXPECT_EQ(PrefixOf(overSelf.Get()), "x");
  EXPECT_EQ(InnerOf(overSelf.Get()), static_cast<ITracer*>(self.Get()));
}

TEST(MakePrefixTracer, WrapsTheHostTracerOrThrowsTheLookupResult) {
  auto sl = MakeHostObject<qeb::testing::FakeServiceLocator>();
  sl->Fail(ITracer::IID, 0, res::AccessDenied);
  try {
    MakePrefixTracer(sl.Get(), "OAS: ");
    FAIL() << "no exception";
  } catch (const CheckResultFailedException& e) {
    EXPECT_EQ(e.File(), "nox_tracing/tracing");
    EXPECT_EQ(e.Line(), 107u);
    EXPECT_EQ(e.Message(), "Expression failed");
    EXPECT_EQ(e.Code(), res::AccessDenied);
  }
  auto t = MakeTracer();
  sl->Restore(ITracer::IID);
  sl->Register<ITracer>(t);
  QEB_TRACE(MakePrefixTracer(sl.Get(), "OAS: "), LevelDetail) << "up";
  EXPECT_EQ(OnlyLine(*t), "OAS: up");
}

// ---- property bags ----

TEST(TraceValues, PropertyBagText) {
  PropertyBag bag;
  EXPECT_EQ(PropertyBagText(bag), "{}");
  bag.Set("qeb.result", int32_t{res::InvalidArgument});
  bag.Set("os.result", uint32_t{2});
  bag.Set("path", std::string("/tmp/a b"));
  bag.Set("wide", std::u16string(u"\u00e9"));
  bag.Set("size", int64_t{5});
  bag.Set("blob", OpaqueValue{99});
  auto t = MakeTracer();
  QEB_TRACE(t, LevelDetail) << "params " << bag;
  EXPECT_EQ(OnlyLine(*t),
            "params {\"qeb.result\":0x80000046, \"os.result\":0x00000002, \"path\":/tmp/a b, "
            "\"wide\":\xc3\xa9, \"size\":<typeid=22>, \"blob\":<typeid=99>}");
}

// ---- key/value events and dates ----

// Local time is UTC for the whole binary, so date texts are fixed.
class KeyValueTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    tzset();
  }
  static std::string Quoted(std::string_view value) {
    KeyValueEvent e;
    e.Set("v", std::string(value));
    return FormatKeyValueEvent(e, KeyValueStyle::Quoted);
  }
};

TEST_F(KeyValueTest, StylesSeparatorsAndEscaping) {
  KeyValueEvent e("FileOpen");
  e.Set("Path", std::string("a\nb"));
  e.Set("Pid", int64_t{-7});
  e.Set("Size", uint64_t{10});
  e.Set("User", std::u16string(u"r\u00f6ot"));
  e.Set("Pid", int64_t{12});  // replaces in place
  EXPECT_EQ(FormatKeyValueEvent(e, KeyValueStyle::Lines),
            "EventType=FileOpen\nPath=a\nb\nPid=12\nSize=10\nUser=r\xc3\xb6ot");
  EXPECT_EQ(FormatKeyValueEvent(e, KeyValueStyle::Blanks),
            "EventType=FileOpen Path=a\nb Pid=12 Size=10 User=r\xc3\xb6ot");
  EXPECT_EQ(FormatKeyValueEvent(e, KeyValueStyle::Quoted),
            "{\"EventType\": \"FileOpen\",\"Path\": \"a\\nb\",\"Pid\": \"12\",\"Size\": \"10\","
            "\"User\": \"r\xc3\xb6ot\"}");
  EXPECT_EQ(EscapeValue(std::string("\b\f\n\r\t\"\\x\x01\xff", 10)),
            std::string("\\b\\f\\n\\r\\t\\\"\\\\x\x01\xff", 17));

  auto t = MakeTracer();
  QEB_TRACE(t, LevelDetail) << AsKeyValues(e, KeyValueStyle::Blanks);
  EXPECT_EQ(OnlyLine(*t), FormatKeyValueEvent(e, KeyValueStyle::Blanks));
}

TEST_F(KeyValueTest, LongValuesAreCutOnEscapedBytes) {
  EXPECT_EQ(Quoted(std::string(2006, 'a')), "{\"v\": \"" + std::string(2006, 'a') + "\"}");

  // Nothing is really dropped at 2007 bytes, yet the count says 1.
  const std::string v2007 = std::string(1004, 'h') + "M" + std::string(1001, 't') + "T";
  EXPECT_EQ(Quoted(v2007), "{\"v\": \"" + std::string(1004, 'h') + "...<Cut out 1 bytes>..." +
                               v2007.substr(1004) + "\"}");

  std::string v3000 = std::string(1000, 'h') + std::string(1000, 'm') + std::string(1000, 't');
  EXPECT_EQ(Quoted(v3000), "{\"v\": \"" + v3000.substr(0, 1004) + "...<Cut out 994 bytes>..." +
                               v3000.substr(1997) + "\"}");

  // 1500 quotes escape to 3000 bytes: the cut counts escaped bytes and may split an escape.
  const std::string escaped = EscapeValue(std::string(1500, '"'));
  ASSERT_EQ(escaped.size(), 3000u);
  EXPECT_EQ(Quoted(std::string(1500, '"')), "{\"v\": \"" + escaped.substr(0, 1004) +
                                                "...<Cut out 994 bytes>..." +
                                                escaped.substr(1997) + "\"}");
}

TEST_F(KeyValueTest, CorruptedFieldsAndDates) {
  KeyValueEvent e("Ev");
  e.Set("Bad", CorruptedField{});
  e.Set("When", DateField{datetime::time_t{1'700'000'000} * 10'000'000, ""});
  e.Set("Year", DateField{86'400LL * 10'000'000, "%Y/%j"});
  e.Set("Before", DateField{-1, ""});
  EXPECT_EQ(FormatKeyValueEvent(e, KeyValueStyle::Lines),
            "EventType=Ev\nBad=<CORRUPTED>\nWhen=2023-11-14 22:13:20\nYear=1970/002\n"
            "Before=1969-12-31 23:59:59");
  const std::string quotedHead = "{\"EventType\": \"Ev\",\"Bad\": \"<CORRUPTED>\",\"When";
  EXPECT_EQ(FormatKeyValueEvent(e, KeyValueStyle::Quoted).substr(0, quotedHead.size()), quotedHead);

  const std::string edge(2047, 'x');
  EXPECT_EQ(DateToText(0, edge.c_str()), edge);
  const std::string tooLong(2048, 'x');
  EXPECT_THROW(DateToText(0, tooLong.c_str()), std::length_error);
  KeyValueEvent d("Ev");
  d.Set("When", DateField{0, tooLong});
  EXPECT_EQ(FormatKeyValueEvent(d, KeyValueStyle::Blanks),
            "EventType=Ev When=Format specification is too long");
}

}  // namespace
}  // namespace qeb::trace
