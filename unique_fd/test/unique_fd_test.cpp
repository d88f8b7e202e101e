#include "unique_fd/unique_fd.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>

namespace {

bool IsOpen(int fd) {
    return ::fcntl(fd, F_GETFD) != -1;
}

TEST(UniqueFdTest, ClosesWhatItOwnsAndNothingItGaveAway) {
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    {
        unique_fd::UniqueFd read(fds[0]);
        unique_fd::UniqueFd write(fds[1]);
        write = std::move(read);  // closes the write end, takes the read end
        EXPECT_FALSE(IsOpen(fds[1]));
        EXPECT_FALSE(read);
        EXPECT_EQ(write.Release(), fds[0]);
        EXPECT_FALSE(write);
    }
    EXPECT_TRUE(IsOpen(fds[0]));
    { const unique_fd::UniqueFd last(fds[0]); }
    EXPECT_FALSE(IsOpen(fds[0]));
}

}  // namespace
