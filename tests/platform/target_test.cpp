// The text form of an attach target, the names that an attach asks with, its time, and callers' networks.
#include "platform/network/target.h"

#include <gtest/gtest.h>

#include "lqregistry/CLqNetwork.h"
#include "platform/network/deadline.h"
#include "platform/network/socket_address.h"

TEST(Target, IsTakenApartFromTheRightAndUnchangedByWhatIsNone) {
  Target target;
  ASSERT_FALSE(parseTarget(MangleHostName("ho*st", "client", 1, 65535), target).IsError());
  for (const char* text : {"*client*1*2", "h*c*8400", "h*c*8400*65536", "h*c*84x0*8402", "h*c*0*8402"})
    EXPECT_EQ(parseTarget(text, target).GetCode(), kLqErrBadTarget) << text;
  EXPECT_EQ(target.host + "," + target.client, "ho*st,client");
  EXPECT_EQ(target.ports, (std::array<std::uint16_t, 2>{1, 65535}));
}

TEST(Target, NamesAreCutToTheirRoomAndLeaveNothingOfLongerOnesBefore) {
  lqsExecuteRemoteDllType remote;
  remote.setNames(std::string(5000, 'l'), "entry");
  EXPECT_EQ(std::string(remote.libraryName), std::string(256, 'l'));
  remote.setNames("library", std::string(5000, 'e'));
  EXPECT_EQ(std::string(remote.libraryName), "library");
  EXPECT_EQ(std::string(remote.entryName), std::string(256, 'e'));
}

TEST(Deadlines, AreTheEarlierOfTwoAndSharedAmongAttempts) {
  using std::chrono::hours;
  const std::pair<Deadline, int> cases[] = {{Deadline::in(-1).within(hours(1)), 1},
                                            {Deadline::in(7200).within(hours(1)), 1},
                                            {Deadline::in(3600).within(hours(2)), 1},
                                            {Deadline::in(7200).share(2), 1},
                                            {Deadline::in(0), 0},
                                            {Deadline::in(3600).within(hours(-1)), 0}};
  for (const auto& [deadline, left] : cases)
    EXPECT_TRUE(deadline.limited() && std::chrono::ceil<hours>(deadline.remaining()) == hours(left));
  EXPECT_FALSE(Deadline::in(-1).share(2).limited());
}

TEST(Addresses, ThatAMachineChoosesItselfCountAsOne) {
  SocketAddress address;
  ASSERT_TRUE(parseAddress("2001:db8:1:2ff:ffff:ffff:ffff:ffff", 1, address));
  EXPECT_EQ(address.network(), "2001:db8:1:2ff::");
  ASSERT_TRUE(parseAddress("::ffff:192.0.2.1", 1, address));
  EXPECT_EQ(address.network(), "::ffff:192.0.2.1") << "an IPv4 address is one machine's as a whole";
}
