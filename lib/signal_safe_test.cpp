#include "lib/signal_safe.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <string>

TEST(SignalDescription, MatchesStrsignalForEverySignal) {
  // Real-time signals included: "Real-time signal 2", never a bare "Unknown signal".
  for (int sig = 1; sig <= SIGRTMAX + 1; ++sig) {
    char buf[kSignalDescriptionSize];
    EXPECT_EQ(std::string(signal_description(sig, buf)), std::string(strsignal(sig))) << sig;
  }
}
