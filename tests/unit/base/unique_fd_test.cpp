#include "base/unique_fd.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <utility>

namespace {

using ProcMgr::UniqueFd;

int OpenNull() {
  return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

bool IsOpen(int fd) {
  return fcntl(fd, F_GETFD) >= 0;
}

TEST(UniqueFd, ClosesOnceAndOnlyWhatItOwns) {
  const int first = OpenNull();
  const int second = OpenNull();
  ASSERT_TRUE(IsOpen(first) && IsOpen(second));
  {
    UniqueFd owner(first);
    owner.Reset(second);
    EXPECT_FALSE(IsOpen(first)) << "the old descriptor leaked";
    EXPECT_EQ(owner.Get(), second);

    UniqueFd heir(std::move(owner));
    EXPECT_FALSE(owner.IsOpen());  // NOLINT(bugprone-use-after-move): the state that is promised.
    EXPECT_TRUE(IsOpen(second));

    UniqueFd& same = heir;
    heir = std::move(same);
    EXPECT_EQ(heir.Get(), second) << "lost by an assignment to itself";

    const UniqueFd last(heir.Release());
    EXPECT_EQ(heir.Get(), -1);
    heir.Reset();
    EXPECT_TRUE(IsOpen(second)) << "closed although it was handed over";
  }
  EXPECT_FALSE(IsOpen(second));
}

TEST(UniqueFd, DescriptorZeroIsOneLikeAnyOther) {
  const UniqueFd saved(fcntl(0, F_DUPFD_CLOEXEC, 3));
  {
    (void)close(0);
    UniqueFd zero(OpenNull());
    ASSERT_EQ(zero.Get(), 0);
    EXPECT_TRUE(zero.IsOpen());
  }
  EXPECT_FALSE(IsOpen(0));
  if (saved.IsOpen()) {
    (void)dup2(saved.Get(), 0);
  }
}

}  // namespace
