// The framework's module loader: what it refuses to load, and that what it
// loads is each module it checked.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include "support/command.h"
#include "support/sandbox_mounts.h"
#include "support/scratch_dir.h"
#include "vela/webapi_envelope.h"
#include "vela/webapi_modules.h"

namespace vela::test {
namespace {

using VELA::APIModules;
using VELA::ModuleTrust;

void Install(const std::string& module, const std::string& dir) {
  MustRun({"install", "-m", "0644", module, dir + "/" + module.substr(module.rfind('/') + 1)});
}

TEST(APIModules, LoadsEveryCheckedModuleOfADirectoryAndFindsItsMethods) {
  ScratchDir dir(kSandboxScratch);
  chmod(dir.Path().c_str(), 0755);
  Install(VELA_TEST_MODULE_PATH, dir.Path());
  Install(VELA_TEST_STORAGE_MODULE_PATH, dir.Path());
  WriteFile(dir / "notes.txt", "not a module");
  APIModules modules;
  std::vector<std::string> skipped;
  std::string error;
  ASSERT_TRUE(modules.LoadDirectory(dir.Path() + "/", skipped, error)) << error;
  EXPECT_TRUE(skipped.empty());
  // Two modules, two tables: each was loaded from its own file.
  ASSERT_EQ(2u, modules.Count());
  EXPECT_NE(modules.Tables()[0], modules.Tables()[1]);
  VELA_WEBAPI_HANDLER handler = nullptr;
  EXPECT_EQ(APIModules::Lookup::kFound, modules.Find("VELA.Snap.Usage.Share", 1, "get_conf", handler));
  EXPECT_EQ(APIModules::Lookup::kFound, modules.Find("VELA.Storage.Volume", 1, "list", handler));
  EXPECT_EQ(APIModules::Lookup::kUnknownVersion, modules.Find("VELA.Storage.Volume", 2, "list", handler));
  EXPECT_EQ(APIModules::Lookup::kUnknownMethod, modules.Find("VELA.Storage.Volume", 1, "drop", handler));
  EXPECT_EQ(APIModules::Lookup::kUnknownApi, modules.Find("No.Such", 1, "list", handler));
}

TEST(APIModules, RefusesWhatAnyoneButRootCouldHaveChangedOrSwapped) {
  ScratchDir top(kSandboxScratch);
  chmod(top.Path().c_str(), 0755);
  const std::string modules = top / "modules";
  ASSERT_EQ(0, mkdir(modules.c_str(), 0755));
  Install(VELA_TEST_MODULE_PATH, modules);
  const std::string name = std::string(VELA_TEST_MODULE_PATH).substr(std::string(VELA_TEST_MODULE_PATH).rfind('/'));
  const auto load = [](const std::string& dir, std::vector<std::string>& skipped) {
    APIModules loaded;
    std::string error;
    if (!loaded.LoadDirectory(dir, skipped, error)) return error;
    return loaded.Count() == 1 ? std::string("loaded") : std::string("none");
  };
  std::vector<std::string> skipped;
  EXPECT_EQ("loaded", load(modules, skipped));

  // A directory above that its group may write to: nothing at all.
  chmod(top.Path().c_str(), 0775);
  EXPECT_EQ(top.Path() + ": its group or others may write to it (mode 0775)", load(modules, skipped));
  chmod(top.Path().c_str(), 0755);
  // The modules directory reached through a link, or not root's.
  ASSERT_EQ(0, symlink(modules.c_str(), (top / "linked").c_str()));
  EXPECT_EQ(top / "linked" + ": it is a symbolic link", load(top / "linked", skipped));
  ASSERT_EQ(0, chown(modules.c_str(), 1, 1));
  EXPECT_EQ(modules + ": it is owned by uid 1, not root", load(modules, skipped));
  ASSERT_EQ(0, chown(modules.c_str(), 0, 0));
  EXPECT_EQ("not an absolute path", load("relative/modules", skipped));

  // Files: not root's, writable by others, or a link are skipped.
  ASSERT_EQ(0, chown((modules + name).c_str(), 1, 0));
  EXPECT_EQ("none", load(modules, skipped));
  ASSERT_EQ(0, chown((modules + name).c_str(), 0, 0));
  ASSERT_EQ(0, chmod((modules + name).c_str(), 0664));
  EXPECT_EQ("none", load(modules, skipped));
  ASSERT_EQ(0, rename((modules + name).c_str(), (top / "real.so").c_str()));
  ASSERT_EQ(0, symlink((top / "real.so").c_str(), (modules + name).c_str()));
  EXPECT_EQ("none", load(modules, skipped));
  ASSERT_EQ(3u, skipped.size());
  EXPECT_EQ(modules + name + ": not owned by root, or writable by others (owner 1, mode 0644)", skipped[0]);
  EXPECT_EQ(modules + name + ": not owned by root, or writable by others (owner 0, mode 0664)", skipped[1]);
  EXPECT_EQ(modules + name + ": it is a symbolic link", skipped[2]);

  // A file the caller chose loads from anywhere, but never through a link.
  APIModules chosen;
  std::string error;
  EXPECT_TRUE(chosen.LoadFile(top / "real.so", ModuleTrust::kCallerChosen, error)) << error;
  EXPECT_FALSE(chosen.LoadFile(modules + name, ModuleTrust::kCallerChosen, error));
  EXPECT_EQ("it is a symbolic link", error);
}

void Throws(VELA::APIRequest*, VELA::APIResponse*) { throw std::runtime_error("broken"); }
void Silent(VELA::APIRequest*, VELA::APIResponse*) {}

TEST(APIModules, AHandlerThatThrowsOrStaysSilentIsAnsweredAsFailedInTheEnvelope) {
  VELA::APIRequest request(Json::Value(Json::objectValue));
  for (VELA_WEBAPI_HANDLER handler : {&Throws, &Silent}) {
    VELA::APIResponse response;
    std::string failure;
    VELA::CallAPIHandler(handler, request, response, &failure);
    EXPECT_EQ(handler == &Throws ? "broken" : "", failure);
    EXPECT_EQ(R"({"success":false,"error":{"code":100}})", VELA::WriteAPIEnvelope(response));
  }
  VELA::APIResponse answer;
  Json::Value data;
  data["b"] = 1;
  data["a"] = "x";
  answer.SetSuccess(data);
  EXPECT_EQ(R"({"success":true,"data":{"a":"x","b":1}})", VELA::WriteAPIEnvelope(answer));
  Json::Value errors;
  errors["retry_after"] = 30;
  EXPECT_EQ(R"({"success":false,"error":{"code":108,"errors":{"retry_after":30}}})",
            VELA::WriteAPIErrorEnvelope(108, errors));
}

}  // namespace
}  // namespace vela::test
