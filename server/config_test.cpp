#include "server/config.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "lib/unique_fd.h"

namespace {

// The port text that get_config reads from a file holding `contents`.
std::string port_from(const std::string& contents) {
  std::string path = testing::TempDir() + "kolta_conf_XXXXXX";
  {
    unique_fd fd(mkstemp(path.data()));
    EXPECT_TRUE(fd.ok());
    EXPECT_EQ(write(fd.get(), contents.data(), contents.size()),
              static_cast<ssize_t>(contents.size()));
  }
  config c;
  std::memset(&c, 'Z', sizeof c);  // the result must not keep any of this
  EXPECT_EQ(get_config(&c, path.c_str()), &c);
  unlink(path.c_str());
  return std::string(c.port, strnlen(c.port, sizeof c.port));
}

}  // namespace

TEST(GetConfig, PortLineValueLosesItsLastCharacter) {
  EXPECT_EQ(port_from("port=8080\n"), "8080");
  EXPECT_EQ(port_from("port=8080"), "808");
  EXPECT_EQ(port_from("port=10000\nport=80\n"), "80000");
  EXPECT_EQ(port_from("report=5\n"), "5");
  EXPECT_EQ(port_from("port = 10000\n"), " 10000");
  EXPECT_EQ(port_from("name=x\nport=1=2\nhost=h\n"), "1=2");
  EXPECT_EQ(port_from("port 8080\n"), "");
  EXPECT_EQ(port_from(""), "");
}

TEST(GetConfig, CommentsAndAMissingFile) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(port_from("#port=1\n"), "");
  EXPECT_NE(testing::internal::GetCapturedStdout().find("Comment"), std::string::npos);

  config c;
  std::memset(&c, 'Z', sizeof c);
  EXPECT_EQ(get_config(&c, "/nonexistent/kolta.conf"), &c);
  EXPECT_EQ(strnlen(c.port, sizeof c.port), 0u);
}
