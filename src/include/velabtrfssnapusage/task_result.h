// Result vectors of a calculator task, one file per vector, named by the
// task ID: ".result" holds the bytes each subvolume uses, ".subvol_id" the
// subvolume root IDs, element i of one belonging to element i of the other.
//
// File format: an 8-byte element count N, then N 8-byte elements, all in
// the machine's byte order; nothing else.
#ifndef VELABTRFSSNAPUSAGE_TASK_RESULT_H_
#define VELABTRFSSNAPUSAGE_TASK_RESULT_H_

#include <string>
#include <vector>

#include "velabtrfssnapusage/export.h"
#include "velabtrfssnapusage/types.h"

namespace VelaBtrfsUsage {

// Return codes.
enum TASK_RESULT_CODE {
  TASK_RESULT_SUCCESS = 0,
  TASK_RESULT_FAIL = 1,
  TASK_RESULT_INVALID_ARGUMENT = 3,
};

class VELA_EXPORT TaskResult {
 public:
  static std::string GetFileBasePath(const std::string& taskID);
  static std::string GetFileLockBasePath(const std::string& taskID);
  // Makes the run-time result and lock directories.
  static bool InitWorkingDir();
  static bool LockFile(const std::string& fileLockPath, bool exclusive, int& fd);
  // Releases (if held) and sets fd to -1; always true.
  static bool UnlockFile(int& fd);

  // Replaces the file with the vector, atomically.
  template <typename T>
  static int WriteVtr(const std::string& filePath, const std::vector<T>& v);
  // Reads the file into v. An empty file is an empty vector; a file whose
  // count claims more elements than it holds is corrupt (failure).
  template <typename T>
  static int ReadVtr(const std::string& filePath, std::vector<T>& v);
  // The task's vector, written under the vector's own exclusive lock.
  template <typename T>
  static int WriteResultVtr(const TASK_RESULT_OPT& opt, const std::string& taskID,
                            const std::vector<T>& v);
  // The task's vector; readers take no lock (writes replace files whole).
  template <typename T>
  static int GetResultVtr(const TASK_RESULT_OPT& opt, const std::string& taskID, std::vector<T>& v);

  // Deletes every result and lock file of the task.
  static bool CleanFile(const std::string& taskID);
};

// The vectors hold unsigned 64-bit numbers only.
extern template VELA_EXPORT int TaskResult::WriteVtr(const std::string&,
                                                     const std::vector<unsigned long long>&);
extern template VELA_EXPORT int TaskResult::ReadVtr(const std::string&,
                                                    std::vector<unsigned long long>&);
extern template VELA_EXPORT int TaskResult::WriteResultVtr(const TASK_RESULT_OPT&, const std::string&,
                                                           const std::vector<unsigned long long>&);
extern template VELA_EXPORT int TaskResult::GetResultVtr(const TASK_RESULT_OPT&, const std::string&,
                                                         std::vector<unsigned long long>&);

}  // namespace VelaBtrfsUsage

#endif  // VELABTRFSSNAPUSAGE_TASK_RESULT_H_
