#include "lib/system_texts.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <string>

// This build uses the GNU C library, whose texts the table must reproduce
// exactly: the static musl builds are compared with this table's output.
TEST(SystemTexts, ErrorTextsAreTheGnuCLibrarys) {
  for (int errnum = -2; errnum <= 300; ++errnum) {
    char buf[kSystemTextSize];
    EXPECT_EQ(std::string(error_text(errnum, buf)), std::string(std::strerror(errnum))) << errnum;
    EXPECT_EQ(std::string(error_text(errnum)), std::string(std::strerror(errnum))) << errnum;
  }
  char small[kSystemTextSize];
  EXPECT_STREQ(error_text(-2147483647 - 1, small), "Unknown error -2147483648");
}

TEST(SystemTexts, SignalTextsAreTheGnuCLibrarys) {
  // Real-time signals included: "Real-time signal 2", and the two the
  // library keeps for itself are "Unknown signal 32" and 33.
  for (int sig = -1; sig <= SIGRTMAX + 2; ++sig) {
    char buf[kSystemTextSize];
    EXPECT_EQ(std::string(signal_text(sig, buf)), std::string(strsignal(sig))) << sig;
  }
}

TEST(SystemTexts, SignalsAreFoundByTheirText) {
  char buf[kSystemTextSize];
  for (int sig = 1; sig <= SIGRTMAX; ++sig) {
    if (sig == 32 || sig == 33) continue;
    EXPECT_EQ(signal_from_text(signal_text(sig, buf)), sig) << sig;
  }
  EXPECT_EQ(signal_from_text("Terminated"), SIGTERM);
  EXPECT_EQ(signal_from_text("Terminated "), 0);
  EXPECT_EQ(signal_from_text(""), 0);
}
