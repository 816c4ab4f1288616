// Web API modules as the framework loads them: shared libraries that
// export GetAPITable, whose rows {API, version, method, handler} are then
// served. A module runs with root's saved ids, so what is loaded must be
// exactly the file that was checked: every file is opened without
// following links, checked through its descriptor, and loaded through
// that same descriptor, never again by its name.
#ifndef VELA_WEBAPI_MODULES_H_
#define VELA_WEBAPI_MODULES_H_

#include <map>
#include <string>
#include <vector>

#include "vela/vlib_types.h"
#include "vela/webapi.h"

namespace VELA {

// What the framework answers when a handler throws or does not answer.
inline constexpr int kAPIHandlerFailed = 100;

// How far a module file must be trusted before it is loaded.
enum class ModuleTrust {
  // A regular file of root's that group and others cannot write, in a
  // directory chain from "/" down that is root's and that group and others
  // cannot write either: nobody but root can have changed or replaced it.
  kRootOwned,
  // Named by whoever runs the program (a tool run by hand, a test): only a
  // symbolic link at the last step or something that is no regular file is
  // refused.
  kCallerChosen,
};

class VELA_PLATFORM_API APIModules {
 public:
  enum class Lookup { kFound, kUnknownApi, kUnknownVersion, kUnknownMethod };

  APIModules() = default;
  ~APIModules();
  APIModules(const APIModules&) = delete;
  APIModules& operator=(const APIModules&) = delete;

  // Loads one module; false with `error` saying why not. The first module
  // to claim an API, version and method keeps it.
  bool LoadFile(const std::string& path, ModuleTrust trust, std::string& error);
  // Loads every "*.so" of `dir` in name order, each as kRootOwned; the
  // directory itself must pass the same checks. False with `error` when the
  // directory is refused; otherwise `skipped` gets one "PATH: why" line per
  // file that did not load.
  bool LoadDirectory(const std::string& dir, std::vector<std::string>& skipped, std::string& error);

  Lookup Find(const std::string& api, unsigned long version, const std::string& method,
              VELA_WEBAPI_HANDLER& handler) const;
  // A symbol of the first loaded module that has it; nullptr when none has.
  void* Symbol(const char* name) const;
  // The method tables, in the order the modules were loaded.
  const std::vector<const VELA_WEBAPI_ENTRY*>& Tables() const { return tables_; }
  size_t Count() const { return handles_.size(); }

 private:
  bool LoadAt(int dirFd, const std::string& name, ModuleTrust trust, std::string& error);

  // API -> version -> method -> handler
  std::map<std::string, std::map<unsigned long, std::map<std::string, VELA_WEBAPI_HANDLER>>> methods_;
  std::vector<const VELA_WEBAPI_ENTRY*> tables_;
  std::vector<void*> handles_;  // loaded for as long as this object lives
  std::vector<int> descriptors_;  // the files they were loaded from
};

// Runs a handler as the framework does: a handler that throws, or returns
// without answering, is answered kAPIHandlerFailed. `failure` (when not
// null) gets the exception's text, empty when there was none.
VELA_PLATFORM_API void CallAPIHandler(VELA_WEBAPI_HANDLER handler, APIRequest& request, APIResponse& response,
                                      std::string* failure = nullptr);

}  // namespace VELA

#endif  // VELA_WEBAPI_MODULES_H_
