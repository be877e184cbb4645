#include "output_files.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include "tool_error.h"

namespace mvda::cli {
namespace {

bool SameFile(const std::string& a, const std::string& b) {
  if (a == b) return true;
  std::error_code error_a, error_b;
  const auto canonical_a = std::filesystem::weakly_canonical(a, error_a);
  const auto canonical_b = std::filesystem::weakly_canonical(b, error_b);
  return !error_a && !error_b && canonical_a == canonical_b;
}

std::string FolderOf(const std::string& path) {
  const std::string folder = std::filesystem::path(path).parent_path().string();
  return folder.empty() ? "." : folder;
}

// One line naming the folder: what a user can act on (free space, permissions).
[[noreturn]] void FailIn(const std::string& path, int error) {
  const std::string folder = FolderOf(path);
  if (error == ENOSPC || error == EDQUOT) {
    throw ToolError(folder + ": no space left to write " + path + " (disk full or quota)");
  }
  if (error == EFBIG) throw ToolError(folder + ": " + path + " exceeds the file size limit");
  if (error == EROFS || error == EACCES || error == EPERM) {
    throw ToolError(folder + ": cannot write " + path + " here: " + std::strerror(error));
  }
  throw ToolError(path + ": cannot write: " + std::strerror(error));
}

// Temporary files "<name>.tmp-<pid>" of `path` whose process is gone: left by a killed run.
void RemoveStaleTemporaries(const std::string& path) {
  const std::filesystem::path target(path);
  const std::string prefix = target.filename().string() + ".tmp-";
  std::error_code error;
  std::filesystem::directory_iterator it(FolderOf(path), error), end;
  for (; !error && it != end; it.increment(error)) {
    const std::string name = it->path().filename().string();
    if (name.size() <= prefix.size() || name.compare(0, prefix.size(), prefix) != 0) continue;
    const std::string digits = name.substr(prefix.size());
    if (digits.find_first_not_of("0123456789") != std::string::npos || digits.size() > 9) continue;
    const pid_t pid = static_cast<pid_t>(std::stol(digits));
    // ESRCH: no such process. A live one (or one we may not signal) keeps its file.
    if (pid != ::getpid() && ::kill(pid, 0) != 0 && errno == ESRCH) {
      std::error_code ignored;
      std::filesystem::remove(it->path(), ignored);
    }
  }
}

bool WriteAll(int fd, const std::string& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace

OutputFiles::~OutputFiles() {
  for (const auto& file : files_) {
    if (file->fd >= 0) ::close(file->fd);
    if (file->temporary.empty()) continue;
    std::error_code ignored;
    std::filesystem::remove(file->temporary, ignored);
  }
}

std::ostream& OutputFiles::Open(const std::string& path) {
  for (const auto& file : files_) {
    if (SameFile(file->path, path)) throw ToolError(path + ": named for two outputs of one run");
  }
  auto file = std::make_unique<File>();
  file->path = path;
  // Beside the destination, so that the final rename stays on one file system.
  file->temporary = path + ".tmp-" + std::to_string(::getpid());
  RemoveStaleTemporaries(path);
  file->fd = ::open(file->temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (file->fd < 0) FailIn(path, errno);  // nothing was created
  files_.push_back(std::move(file));
  return files_.back()->stream;
}

void OutputFiles::CommitAll() {
  // Past a file size limit (ulimit -f) write fails with EFBIG instead of killing the process.
  std::signal(SIGXFSZ, SIG_IGN);
  for (const auto& file : files_) {
    if (!file->stream) throw ToolError(file->path + ": cannot write: out of memory");
    // On the disk before the rename, so that a crash cannot leave a renamed empty file.
    if (!WriteAll(file->fd, file->stream.str()) || ::fsync(file->fd) != 0) FailIn(file->path, errno);
    const int closed = ::close(file->fd);
    file->fd = -1;
    if (closed != 0) FailIn(file->path, errno);
    file->stream.str(std::string());
  }
  for (const auto& file : files_) {
    if (std::rename(file->temporary.c_str(), file->path.c_str()) != 0) FailIn(file->path, errno);
    file->temporary.clear();
  }
  // The renames themselves on the disk too.
  for (const auto& file : files_) {
    const int folder = ::open(FolderOf(file->path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder >= 0) {
      ::fsync(folder);
      ::close(folder);
    }
  }
}

std::vector<std::string> OutputFiles::Paths() const {
  std::vector<std::string> paths;
  for (const auto& file : files_) paths.push_back(file->path);
  return paths;
}

}  // namespace mvda::cli
