// Enumeration names: every table converts both ways and sits at its own place in the
// registry, the typed wrappers reach the right table, and unknown values and texts fail
// with the exact messages callers pass on. Owns no state.
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>

#include "framework/enums/enum_names.h"

namespace {

using namespace nox::enums;

std::string ErrorOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "<no exception>";
}

TEST(EnumNames, TypedConversionsReachTheirOwnTable) {
  EXPECT_EQ(static_cast<uint32_t>(ActionOnThreat::Type::Notify), 5u);
  EXPECT_EQ(EnumToString(ActionOnThreat::Type::Notify), "Notify");
  EXPECT_EQ(StringToEnum<ActionOnThreat::Type>("Notify"), ActionOnThreat::Type::Notify);
  // "Recommended" is a member of two enumerations with different values.
  EXPECT_EQ(StringToEnum<ActionOnThreat::Type>("Recommended"), ActionOnThreat::Type::Recommended);
  EXPECT_EQ(StringToEnum<HeuristicLevel::Type>("Recommended"), HeuristicLevel::Type::Recommended);
  EXPECT_EQ(EnumToString(HeuristicLevel::Type::Deep), "Deep");
  EXPECT_EQ(EnumToString(ExtensionFilter::Type::ByFormat), "ByFormat");
  EXPECT_EQ(StringToEnum<Access::Type>("OnExecute"), Access::Type::OnExecute);
  EXPECT_EQ(StringToEnum<Boolean::Type>("Yes"), Boolean::Type::Yes);
  EXPECT_EQ(EnumToString(static_cast<TraceLevel::Type>(300)), "Error");
  EXPECT_EQ(EnumToString(static_cast<TraceLevel::Type>(700)), "Notice");
  EXPECT_EQ(EnumToString(static_cast<TraceLevel::Type>(800)), "Detail");
  EXPECT_EQ(EnumToString(static_cast<FilesystemName::Type>(0x9fa0)), "proc");
  EXPECT_EQ(static_cast<uint32_t>(StringToEnum<FilesystemName::Type>("ext4")), 0xEF53u);
}

TEST(EnumNames, UnknownValuesAndTextsGiveExactMessages) {
  EXPECT_EQ(ErrorOf([] { EnumToString(static_cast<Access::Type>(99)); }),
            "EnumToString, invalid 'Access' enum value: 99");
  EXPECT_EQ(ErrorOf([] { EnumToString(static_cast<ActionOnThreat::Type>(4294967295u)); }),
            "EnumToString, invalid 'ActionOnThreat' enum value: 4294967295");
  // Between two listed values: the binary search must not settle on a neighbour.
  EXPECT_EQ(ErrorOf([] { EnumToString(static_cast<TraceLevel::Type>(301)); }),
            "EnumToString, invalid 'TraceLevel' enum value: 301");
  EXPECT_EQ(ErrorOf([] { StringToEnum<ActionOnThreat::Type>("notify"); }),
            "There is no such 'ActionOnThreat::Type' value: notify");
  EXPECT_EQ(ErrorOf([] { StringToEnum<HeuristicLevel::Type>(""); }),
            "There is no such 'HeuristicLevel::Type' value: ");
  EXPECT_EQ(ErrorOf([] { StringToEnum<FilesystemName::Type>("EXT4"); }),
            "There is no such 'FilesystemName::Type' value: EXT4");
  EXPECT_EQ(ErrorOf([] { StringToEnum<Boolean::Type>("Yes "); }),
            "There is no such 'Boolean::Type' value: Yes ");
}

TEST(EnumNames, BoolConvertsExactly) {
  EXPECT_EQ(BoolToString(true), "true");
  EXPECT_EQ(BoolToString(false), "false");
  EXPECT_TRUE(StringToBool("true"));
  EXPECT_FALSE(StringToBool("false"));
  EXPECT_EQ(ErrorOf([] { StringToBool("True"); }), "There is no such 'bool' value: True");
  EXPECT_EQ(ErrorOf([] { StringToBool(""); }), "There is no such 'bool' value: ");
  EXPECT_EQ(ErrorOf([] { StringToBool("1"); }), "There is no such 'bool' value: 1");
}

}  // namespace
