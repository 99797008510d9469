#include "client/vesk_cob.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

TEST(VeskCObj, ArgumentsComeOutLastAddedFirstAndBounded) {
  vesk_c_obj obj;
  ASSERT_EQ(VESK_C_OBJ_new(&obj, "getfile"), 0);
  EXPECT_STREQ(obj.command, "getfile");
  EXPECT_EQ(VESK_C_OBJ_addArgument(&obj, "a", "1"), 0);
  EXPECT_EQ(VESK_C_OBJ_addArgument(&obj, "b", "2"), 0);
  const std::string long_name(40, 'n');
  const std::string long_value(200, 'v');
  VESK_C_OBJ_addArgument(&obj, long_name.c_str(), long_value.c_str());

  vesk_c_arg arg;
  ASSERT_EQ(VESK_C_OBJ_getArgument(&obj, &arg), 1);
  EXPECT_EQ(std::string(arg.name, sizeof arg.name), long_name.substr(0, 32));  // not terminated
  EXPECT_EQ(std::string(arg.value, sizeof arg.value), long_value.substr(0, 128));
  ASSERT_EQ(VESK_C_OBJ_getArgument(&obj, &arg), 1);
  EXPECT_STREQ(arg.name, "b");
  ASSERT_EQ(VESK_C_OBJ_getArgument(&obj, &arg), 1);
  EXPECT_STREQ(arg.value, "1");
  EXPECT_EQ(VESK_C_OBJ_getArgument(&obj, &arg), 0);

  EXPECT_EQ(VESK_C_OBJ_destroy(&obj), 1);
  EXPECT_EQ(obj.arguments_chain, nullptr);
  EXPECT_DEATH(VESK_C_OBJ_destroy(&obj), "vesk_cob.*37.*VESK_C_OBJ_destroy.*obj->arguments_chain");

  const std::string long_command(130, 'c');
  VESK_C_OBJ_new(&obj, long_command.c_str());
  EXPECT_EQ(std::string(obj.command, sizeof obj.command), long_command.substr(0, 128));
  VESK_C_OBJ_destroy(&obj);
}

long take_all(long length, const char*, vesk_c_obj*) { return length; }

TEST(VeskCObj, DataHandlerRecordsItsArgumentsUpToTheNull) {
  vesk_c_obj obj;
  VESK_C_OBJ_new(&obj, "x");
  const std::string long_arg(300, 'z');
  VESK_C_OBJ_DataHandler(&obj, take_all, "one", long_arg.c_str(), static_cast<const char*>(nullptr),
                         "never");
  EXPECT_EQ(obj.data_handler, take_all);
  ASSERT_EQ(obj.data_argc, 2);
  EXPECT_STREQ(obj.data_args[0], "one");
  EXPECT_EQ(std::strlen(obj.data_args[1]), 127u);
  VESK_C_OBJ_destroy(&obj);
}

TEST(ReplyTables, PrefixMatchWithoutCaseAndIntendedShadowing) {
  EXPECT_EQ(find_resp_type("Success")->handler, reply_success_handler);
  EXPECT_EQ(find_resp_type("SUCCESSFUL")->handler, reply_success_handler);
  EXPECT_EQ(find_resp_type("fail")->handler, reply_fail_handler);
  EXPECT_EQ(find_resp_type("Control")->handler, nullptr);
  EXPECT_EQ(find_resp_type(""), nullptr);
  EXPECT_EQ(find_resp_type("Succ"), nullptr);

  EXPECT_EQ(find_mime_handler("IMAGE/EXE_MD5")->handler, mime_exe_handler);
  EXPECT_EQ(find_mime_handler("text/plain; charset=x")->handler, mime_default_handler);
  EXPECT_EQ(find_mime_handler("file/binary"), nullptr);
}

TEST(ReplyHandlers, PrintTheirTextsAndResults) {
  client_resp_obj rec{};
  CaptureStdout();
  EXPECT_EQ(reply_success_handler(3, &rec), 0);
  EXPECT_EQ(reply_fail_handler(3, &rec), 1);
  EXPECT_EQ(GetCapturedStdout(), "nice - success !\nnot nice - fail !\n");

  std::strcpy(rec.content_type, "image/exe_md5");
  rec.data.size = 42;
  CaptureStdout();
  EXPECT_EQ(reply_data_handler(3, &rec), 1);
  EXPECT_EQ(GetCapturedStdout(),
            "Data-Handler\nData-ContentTypeType: [image/exe_md5]\n"
            "ContentType-Handler: image/exe\nresp_obj->data.size = 42\n"
            "Filename: dummy.$$$\nData handled.\n");

  std::strcpy(rec.header.names[0], "File");
  std::strcpy(rec.header.values[0], "/bin/tool");
  std::strcpy(rec.content_type, "text/plainer");
  CaptureStdout();
  mime_exe_handler(3, &rec);
  EXPECT_EQ(reply_data_handler(3, &rec), 1);
  EXPECT_EQ(GetCapturedStdout(),
            "ContentType-Handler: image/exe\nresp_obj->data.size = 42\nFilename: /bin/tool\n"
            "Data-Handler\nData-ContentTypeType: [text/plainer]\n"
            "default mime handler\nresp_obj->data.size = 42\nData handled.\n");

  std::strcpy(rec.content_type, "file/binary");
  CaptureStdout();
  EXPECT_EQ(reply_data_handler(3, &rec), 1);
  EXPECT_EQ(GetCapturedStdout(), "Data-Handler\nData-ContentTypeType: [file/binary]\nData handled.\n");
}

}  // namespace
