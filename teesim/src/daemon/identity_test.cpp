/* Client identities for each login method, and the refusals. */
#include "daemon/identity.h"

#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tee_internal_api.h"

namespace teesim::daemon {
namespace {

using wire::Login;

PeerCredentials sample() {
  PeerCredentials p;
  p.pid = 100;
  p.uid = 1000;
  p.gid = 1000;
  p.groups = {27, 100};
  p.exe = "/usr/bin/tessera";
  return p;
}

TEST(Identity, NameUuidsAreVersion5AndStable) {
  Uuid a = name_uuid("uid:1000");
  EXPECT_EQ(a, name_uuid("uid:1000"));
  EXPECT_NE(a, name_uuid("uid:1001"));
  EXPECT_EQ(a.bytes[6] >> 4, 5);
  EXPECT_EQ(a.bytes[8] & 0xC0, 0x80);
}

TEST(Identity, EachLoginMethodNamesTheClientDifferently) {
  PeerCredentials p = sample();
  Uuid pub, user, group, app, user_app, group_app;
  ASSERT_EQ(client_identity(Login::Public, false, 0, p, &pub), TEE_SUCCESS);
  EXPECT_EQ(pub, Uuid{});
  ASSERT_EQ(client_identity(Login::User, false, 0, p, &user), TEE_SUCCESS);
  ASSERT_EQ(client_identity(Login::Group, true, 100, p, &group), TEE_SUCCESS);
  ASSERT_EQ(client_identity(Login::Application, false, 0, p, &app), TEE_SUCCESS);
  ASSERT_EQ(client_identity(Login::UserApplication, false, 0, p, &user_app), TEE_SUCCESS);
  ASSERT_EQ(client_identity(Login::GroupApplication, true, 1000, p, &group_app), TEE_SUCCESS);
  std::set<Uuid> all = {pub, user, group, app, user_app, group_app};
  EXPECT_EQ(all.size(), 6u);
  EXPECT_EQ(user, name_uuid("uid:1000"));
}

TEST(Identity, GroupLoginsNeedMembershipAndUnknownMethodsAreRefused) {
  PeerCredentials p = sample();
  Uuid id;
  EXPECT_EQ(client_identity(Login::Group, false, 0, p, &id), TEE_ERROR_BAD_PARAMETERS);
  EXPECT_EQ(client_identity(Login::Group, true, 4242, p, &id), TEE_ERROR_ACCESS_DENIED);
  EXPECT_EQ(client_identity(static_cast<Login>(0x7), false, 0, p, &id), TEE_ERROR_BAD_PARAMETERS);
  p.exe.clear();
  EXPECT_EQ(client_identity(Login::Application, false, 0, p, &id), TEE_ERROR_ACCESS_DENIED);
}

TEST(Identity, PeerCredentialsOfASocketPair) {
  int sv[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sv), 0);
  PeerCredentials p;
  ASSERT_TRUE(read_peer_credentials(sv[0], &p));
  EXPECT_EQ(p.pid, ::getpid());
  EXPECT_EQ(p.uid, ::geteuid());
  EXPECT_FALSE(p.exe.empty());
  ::close(sv[0]);
  ::close(sv[1]);
}

}  // namespace
}  // namespace teesim::daemon
