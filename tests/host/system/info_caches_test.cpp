// File owners keyed by path digests: long paths differing only at the end, or only in their
// mount namespace, stay apart.
#include <gtest/gtest.h>

#include "framework/qeb/host_object.h"
#include "host/system/info_caches.h"

TEST(UserInfoCacheTest, LongPathsDifferingOnlyAtTheEndOrInNamespaceStayApart) {
  const std::string path = "/" + std::string(4000, 'd') + "/file";
  auto cache = qeb::host::MakeHostObject<oasd::UserInfoCache>();
  cache->NoteEventUser(1, path + "1", 0);
  cache->NoteEventUser(1, path + "2", 4242);
  nox::UserInfo info;
  EXPECT_TRUE(cache->GetFileOwner(1, path + "2", info) == qeb::res::Ok && info.userId == u"4242");
  EXPECT_EQ(cache->GetFileOwner(2, path + "1", info), qeb::res::NotFound);
  EXPECT_EQ(cache->GetFileOwner(1, path, info), qeb::res::NotFound);
}
