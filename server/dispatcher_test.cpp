#include "server/dispatcher.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "commands/files.h"
#include "lib/bounded.h"
#include "server/command_table.h"

namespace {

int dispatch(const std::string& command, resp_obj* resp) {
  vesk_request request{};
  EXPECT_TRUE(bounded_copy(request.command, command));
  return cmd_dispatcher(&request, resp);
}

}  // namespace

TEST(Dispatcher, HelpInAnyCaseKeepsTheConnection) {
  for (const char* name : {"help", "HELP", "hElP"}) {
    resp_obj resp{};
    EXPECT_EQ(dispatch(name, &resp), 1) << name;
    EXPECT_EQ(resp.type, kReplyData);
    EXPECT_STREQ(resp.content_type, "text/plain");
    EXPECT_EQ(resp.data.size, 15);
    ASSERT_NE(resp.data.ptr, nullptr);
    EXPECT_EQ(strnlen(static_cast<const char*>(resp.data.ptr), 16), 15u);
  }
}

TEST(Dispatcher, UnknownNamesAreIllegalAndClose) {
  for (const std::string& name :
       {std::string("getFil"), std::string("getFiles"), std::string("nosuch"), std::string(),
        std::string("help "), std::string(109, 'q')}) {
    resp_obj resp{};
    resp.type = kReplySuccess;
    EXPECT_EQ(dispatch(name, &resp), 0) << name;
    EXPECT_EQ(resp.type, kReplyFail);
    EXPECT_EQ(std::string(resp.text), "`" + name + "' illegal command");
  }
}

TEST(DispatcherDeathTest, UnknownNameTooLongForItsReplyEndsTheWorker) {
  resp_obj resp{};
  EXPECT_EXIT(dispatch(std::string(110, 'q'), &resp), testing::ExitedWithCode(1), "");
}

TEST(Dispatcher, NamesMatchTheirEntryWithoutRegardToCase) {
  // Without its "file" argument getFile answers Fail at once, touching nothing.
  vesk_request request{};
  resp_obj direct{};
  const int kept = getFile_fn(&request, &direct);
  ASSERT_EQ(direct.type, kReplyFail);
  ASSERT_NE(direct.text[0], '\0');
  for (const char* name : {"GETFILE", "GetFile", "getfile"}) {
    resp_obj resp{};
    EXPECT_EQ(dispatch(name, &resp), kept) << name;
    EXPECT_EQ(resp.type, kReplyFail);
    EXPECT_STREQ(resp.text, direct.text);
  }
}

TEST(CommandTable, TwentyThreeCommandsInOrder) {
  const char* names[kCommandCount] = {
      "test", "server_setup", "server_reset", "reboot", "shutdown", "system",
      "system_getDetails", "execute", "execute_getDetails", "exec_exclusive_prepare",
      "exec_exclusive", "exec_exclusive_getDetails", "process_start", "process_stop",
      "process_getState", "process_getDetails", "version", "getCap", "getFile", "putFile",
      "remFile", "exitapp", "help"};
  static_assert(kCommandCount == 23);
  for (int i = 0; i < kCommandCount; ++i) {
    ASSERT_NE(cmd_table[i].name, nullptr);
    EXPECT_STREQ(cmd_table[i].name, names[i]);
  }
  EXPECT_EQ(cmd_table[kCommandCount - 1].handler, &help_fn);
  EXPECT_EQ(cmd_table[kCommandCount].name, nullptr);
  EXPECT_EQ(cmd_table[kCommandCount].handler, nullptr);
}
