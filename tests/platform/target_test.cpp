// The text form of an attach target, and the names that an attach asks with.
#include "platform/network/target.h"

#include <gtest/gtest.h>

#include "lqregistry/CLqNetwork.h"

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
  EXPECT_EQ(std::string(remote.libraryName), std::string(sizeof remote.libraryName - 1, 'l'));
  remote.setNames("library", std::string(5000, 'e'));
  EXPECT_EQ(std::string(remote.libraryName), "library");
  EXPECT_EQ(std::string(remote.entryName), std::string(sizeof remote.entryName - 1, 'e'));
}
