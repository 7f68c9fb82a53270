// The names that an attach asks with.
#include <gtest/gtest.h>

#include "lqregistry/CLqNetwork.h"

TEST(RemoteLibrary, NamesAreCutToTheirRoomAndLeaveNothingOfLongerOnesBefore) {
  lqsExecuteRemoteDllType remote;
  remote.setNames(std::string(5000, 'l'), std::string(5000, 'e'));
  EXPECT_EQ(std::string(remote.libraryName), std::string(sizeof remote.libraryName - 1, 'l'));
  EXPECT_EQ(std::string(remote.entryName), std::string(sizeof remote.entryName - 1, 'e'));
  remote.setNames("library", "entry");
  EXPECT_EQ(std::string(remote.libraryName), "library");
  EXPECT_EQ(std::string(remote.entryName), "entry");
}
