#include "client/load_on_demand.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "tests/support/scripted_server.h"

namespace {

using kolta_test::ScriptedServer;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

const std::string kInfoReply = "Reply: Data\r\nContent-length: 4\r\nContent-Type: image/exe_md5\r\n\r\nABCD";
const std::string kLoadReply = "Reply: Data\r\nContent-length: 3\r\nContent-Type: image/exe\r\n\r\nELF";

std::string existing_file() {
  static const std::string path = [] {
    std::string p = testing::TempDir() + "lod_tool";
    std::FILE* f = std::fopen(p.c_str(), "wb");
    std::fputs("hello", f);  // MD5 5D41402ABC4B2A76B9719D911017C592
    std::fclose(f);
    return p;
  }();
  return path;
}

// The loader's settings are process-wide, so its cases run in this order.
TEST(LoadOnDemand, RequestsAndResultsInEveryState) {
  char message[32] = {};
  EXPECT_EQ(load_on_demand(existing_file().c_str(), message, sizeof message), 1);
  EXPECT_STREQ(message, "loader not initialized");
  char small[8];
  std::memset(small, 'x', sizeof small);
  EXPECT_EQ(load_on_demand("x", small, sizeof small), 1);
  EXPECT_EQ(std::string(small, sizeof small), "loader n");  // cut, not terminated

  load_on_demand_init(1, "10.0.0.1", 1);
  CaptureStdout();
  EXPECT_EQ(load_on_demand(existing_file().c_str(), message, sizeof message), 0);
  EXPECT_EQ(GetCapturedStdout(), "");

  {  // An existing file: the signature is asked for, then the file is loaded.
    ScriptedServer server({kInfoReply, kLoadReply});
    load_on_demand_init(0, "192.0.2.7", static_cast<std::uint16_t>(server.port()));
    CaptureStdout();
    EXPECT_EQ(load_on_demand(existing_file().c_str(), message, sizeof message), 0);
    const std::string out = GetCapturedStdout();
    const std::string name = existing_file();
    EXPECT_EQ(server.requests(),
              (std::vector<std::string>{"Request: getExecuteableInfo\r\nName: " + name + "\r\n\r\n",
                                        "Request: getExecuteable\r\nName: " + name + "\r\n\r\n"}));
    EXPECT_EQ(out.find("- Load-On-Demand -\ncheck if file exists locally..Ermittelte Signatur "
                       "(lokal): \n5D41402ABC4B2A76B9719D911017C592\ntry connection ..connected.\n"),
              0u)
        << out;
    EXPECT_NE(out.find("socket closed.\nSignatures don't match - try loading file ..try connection"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("Filename: dummy.$$$\n"), std::string::npos) << out;
    EXPECT_EQ(out.substr(out.size() - 36), "socket closed.\nsuccessfully loaded !");
  }

  {  // A missing file goes straight to the load request.
    ScriptedServer server({kLoadReply});
    load_on_demand_init(2, "127.0.0.1", static_cast<std::uint16_t>(server.port()));
    CaptureStdout();
    EXPECT_EQ(load_on_demand("/nonexistent/tool", message, sizeof message), 0);
    GetCapturedStdout();
    EXPECT_EQ(server.requests(),
              std::vector<std::string>{"Request: getExecuteable\r\nName: /nonexistent/tool\r\n\r\n"});
  }

  {  // A refused load is an operation error.
    ScriptedServer server({"Reply: Fail\r\nReason: no such file\r\n\r\n"});
    load_on_demand_init(0, "127.0.0.1", static_cast<std::uint16_t>(server.port()));
    CaptureStdout();
    EXPECT_EQ(load_on_demand("/nonexistent/tool", message, sizeof message), 1);
    const std::string out = GetCapturedStdout();
    EXPECT_NE(out.find("not nice - fail !\nvesk_c_action: operation error !socket closed.\nload failed !"),
              std::string::npos)
        << out;
  }

  // No server: the load fails.
  int port;
  { ScriptedServer gone({}); port = gone.port(); }
  load_on_demand_init(0, "127.0.0.1", static_cast<std::uint16_t>(port));
  CaptureStdout();
  EXPECT_EQ(load_on_demand("/nonexistent/tool", message, sizeof message), 1);
  EXPECT_EQ(GetCapturedStdout(),
            "- Load-On-Demand -\ncheck if file exists locally..try connection ..load failed !");
}

}  // namespace
