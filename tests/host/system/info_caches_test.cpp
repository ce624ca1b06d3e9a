// The user-information cache keyed by path digests: long paths that differ only at the end,
// or only in their mount namespace, are told apart.
#include <gtest/gtest.h>

#include <string>

#include "framework/qeb/host_object.h"
#include "framework/qeb/utf.h"
#include "host/system/info_caches.h"

namespace {

TEST(UserInfoCacheTest, OwnersOfLongPathsDifferingOnlyAtTheEndOrInNamespaceStayApart) {
  const std::string prefix = "/" + std::string(4000, 'd') + "/file";
  auto cache = qeb::host::MakeHostObject<oasd::UserInfoCache>();
  ASSERT_EQ(cache->NoteEventUser(1, prefix + "1", 0), qeb::res::Ok);
  ASSERT_EQ(cache->NoteEventUser(1, prefix + "2", 4242), qeb::res::Ok);
  nox::UserInfo info;
  ASSERT_EQ(cache->GetFileOwner(1, prefix + "1", info), qeb::res::Ok);
  EXPECT_EQ(qeb::Utf16ToUtf8(info.userId), "0");
  ASSERT_EQ(cache->GetFileOwner(1, prefix + "2", info), qeb::res::Ok);
  EXPECT_EQ(qeb::Utf16ToUtf8(info.userId), "4242");
  EXPECT_EQ(cache->GetFileOwner(2, prefix + "1", info), qeb::res::NotFound);
  EXPECT_EQ(cache->GetFileOwner(1, prefix, info), qeb::res::NotFound);
}

}  // namespace
