// Every step of a check is a host call whose failure is traced and handed back as it is;
// nothing here throws once the categorizer exists, and it keeps no state between calls.
#include "oas/cache_impl/process_categorizer.h"

#include "framework/qeb/service.h"
#include "nox_tracing/tracing.h"

namespace nox::oas {
namespace {

using qeb::trace::LevelDetail;
using system_interceptors::process_manager::ProcessInfo;
namespace res = qeb::res;

}  // namespace

ProcessCategorizer::ProcessCategorizer(qeb::IServiceLocator* sl)
    : m_tracer(qeb::RequireInterface<qeb::ITracer>(sl)),
      m_applicationCategorizer(QEB_REQUIRE_SERVICE(IApplicationCategorizer, sl,
                                                   "Cannot get IApplicationCategorizer interface")),
      m_applicationProvider(
          QEB_REQUIRE_SERVICE(IApplicationProvider, sl, "Cannot get IApplicationProvider interface")) {}

qeb::result_t ProcessCategorizer::CheckProcessCategory(const ProcessInfo& process,
                                                       const std::u16string& categoryName) const noexcept {
  QEB_TRACE(m_tracer, LevelDetail) << "CheckProcessCategory: Process image path: " << process.m_imagePath
                                   << ", Check category: " << categoryName;
  qeb::objptr_t<ICategory> category;
  qeb::result_t r = FirstCategory(process, category);
  if (r != res::Ok) return r;

  std::u16string name;
  QEB_CHECK_TRACE(m_tracer, r, category->GetName(name)) << "Cannot get name of category";
  if (QEB_FAILED(r)) return r;
  QEB_TRACE(m_tracer, LevelDetail) << "CheckProcessCategory: Process category name: " << name;

  if (name == categoryName) return TraceResult(res::Ok, "Category match");
  return TraceResult(res::False, "Category mismatch");
}

qeb::result_t ProcessCategorizer::FirstCategory(const ProcessInfo& process,
                                                qeb::objptr_t<ICategory>& category) const noexcept {
  qeb::objptr_t<IApplication> application;
  qeb::result_t r = res::Ok;
  QEB_CHECK_TRACE(m_tracer, r,
                  m_applicationProvider->GetApplicationByPath(process.m_imagePath.c_str(), application.Ref()))
      << "Failed to get application by path: ";
  if (QEB_FAILED(r)) return r;

  QEB_CHECK_TRACE(m_tracer, r, m_applicationCategorizer->CategorizeFirst(application, category.Ref()))
      << "Failed to categorize process: ";
  if (QEB_FAILED(r)) return r;
  if (!category) return TraceResult(res::False, "Non-categorized process");
  return res::Ok;
}

qeb::result_t ProcessCategorizer::TraceResult(qeb::result_t result, const char* message) const noexcept {
  QEB_TRACE(m_tracer, LevelDetail) << "CheckProcessCategory() <- " << qeb::trace::AsResult(result) << ' '
                                   << message;
  return result;
}

}  // namespace nox::oas
