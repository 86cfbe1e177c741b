// Entry point shared by every test program.
#include <csignal>

#include <gtest/gtest.h>

int main(int argc, char** argv)
{
   // A peer that closes a TCP connection mid-test must not end the whole test program.
   std::signal(SIGPIPE, SIG_IGN);
   ::testing::InitGoogleTest(&argc, argv);
   return RUN_ALL_TESTS();
}
