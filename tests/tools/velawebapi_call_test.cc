// The request runner from the command line: answers, exit statuses, messages.
#include <gtest/gtest.h>

#include "support/command.h"
#include "support/module_loader.h"
#include "support/scratch_dir.h"

namespace vela::test {
namespace {

constexpr char kApi[] = "VELA.Snap.Usage.Share";

CommandResult Call(std::vector<std::string> args) {
  args.insert(args.begin(), VELA_TEST_RUNNER_PATH);
  return RunCommand(args);
}

TEST(VelawebapiCall, AnswersAsOneLineOfJsonWithTheExitStatusOfTheAnswer) {
  auto result = Call({kApi, "1", "get_conf", R"({"additional":["reminder"]})"});
  EXPECT_EQ(0, result.status) << result.err;
  EXPECT_EQ("{\"success\":true,\"data\":{\"reminder\":true}}\n", result.out);

  result = Call({kApi, "1", "set_conf", R"({"reminder":false})"});
  EXPECT_EQ(0, result.status);
  EXPECT_EQ("{\"success\":true,\"data\":null}\n", result.out);
  result = Call({"--module", ModulePath(), kApi, "1", "get_conf", R"({"additional":["reminder"]})"});
  EXPECT_EQ("{\"success\":true,\"data\":{\"reminder\":false}}\n", result.out);

  result = Call({kApi, "1", "set_conf", R"({"reminder":"yes"})"});
  EXPECT_EQ(1, result.status);
  EXPECT_EQ("{\"success\":false,\"error\":{\"code\":3}}\n", result.out);
  result = Call({kApi, "1", "get_conf"});
  EXPECT_EQ(0, result.status);
  EXPECT_EQ("{\"success\":true,\"data\":null}\n", result.out);
}

TEST(VelawebapiCall, UsageErrorsUnknownMethodsAndUnloadableModulesExitTwo) {
  ScratchDir dir;
  WriteFile(dir / "not-a-module.so", "garbage");
  const std::string deep = "{\"a\":" + std::string(64, '[') + std::string(64, ']') + "}";
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{kApi, "1", "get_conf", "{bad"}, "malformed PARAMS_JSON"},
      {{kApi, "1", "get_conf", "[1]"}, "parameters must be a JSON object"},
      {{kApi, "1", "get_conf", "{} extra"}, "malformed PARAMS_JSON"},
      {{kApi, "1", "get_conf", deep}, "malformed PARAMS_JSON: nested deeper than 64 levels"},
      {{kApi, "1", "no_such_method"}, "has no method no_such_method of VELA.Snap.Usage.Share version 1"},
      {{kApi, "2", "get_conf"}, "has no method get_conf of VELA.Snap.Usage.Share version 2"},
      {{"Other.API", "1", "get_conf"}, "has no method get_conf of Other.API"},
      {{kApi, "one", "get_conf"}, "VERSION must be a number"},
      {{kApi, "1"}, "wrong number of arguments"},
      {{"--module"}, "--module needs a path"},
      {{"--module", dir / "not-a-module.so", kApi, "1", "get_conf"}, "cannot load module"},
      {{"--module", dir / "missing.so", kApi, "1", "get_conf"}, "cannot load module"},
  };
  for (const auto& [args, message] : cases) {
    const auto result = Call(args);
    EXPECT_EQ(2, result.status) << args[0] << " ...";
    EXPECT_EQ("", result.out);
    EXPECT_NE(std::string::npos, result.err.find(message)) << result.err;
  }
}

}  // namespace
}  // namespace vela::test
