// OutputFiles: the files one run of the tool writes, made under temporary names and moved into
// place together at the end.
#ifndef MVDA_APPS_MVDA_OUTPUT_FILES_H_
#define MVDA_APPS_MVDA_OUTPUT_FILES_H_

#include <sstream>
#include <memory>
#include <string>
#include <vector>

namespace mvda::cli {

// A failed run, or one stopped with Ctrl-C, must not leave a half-written model or report that a
// later step would take for a good one. So every file is first written beside its destination
// under a temporary name "<destination>.tmp-<pid>", and CommitAll writes them out, flushes them
// to the disk (fsync) and renames them all once everything has been written; a killed run leaves
// the old file or the complete new one. The destructor removes whatever was not committed, and
// Open removes temporary files of the same destination left by processes that no longer run
// (kill -9). A full disk, a file size limit or a read-only folder gives one ToolError that names
// the folder, and no temporary file is left.
class OutputFiles {
 public:
  OutputFiles() = default;
  OutputFiles(const OutputFiles&) = delete;
  OutputFiles& operator=(const OutputFiles&) = delete;
  ~OutputFiles();

  // A stream to the temporary file of `path`, in binary mode. ToolError when it cannot be
  // created (no such folder, no permission).
  std::ostream& Open(const std::string& path);
  void Write(const std::string& path, const std::string& content) { Open(path) << content; }
  // Closes every file, checks that every write succeeded and renames them into place; ToolError
  // naming the file otherwise (and nothing renamed).
  void CommitAll();
  // The destinations, in the order they were opened.
  std::vector<std::string> Paths() const;

 private:
  struct File {
    std::string path;
    std::string temporary;
    int fd = -1;                // the temporary file, created by Open
    std::ostringstream stream;  // its contents, written out by CommitAll
  };
  std::vector<std::unique_ptr<File>> files_;
};

}  // namespace mvda::cli

#endif  // MVDA_APPS_MVDA_OUTPUT_FILES_H_
