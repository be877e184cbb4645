#include "output_files.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>

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

}  // namespace

OutputFiles::~OutputFiles() {
  for (const auto& file : files_) {
    if (file->temporary.empty()) continue;
    file->stream.close();
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
  file->stream.open(file->temporary, std::ios::binary | std::ios::trunc);
  if (!file->stream) {
    const std::string reason = std::strerror(errno);
    file->temporary.clear();  // nothing was created
    throw ToolError(path + ": cannot write: " + reason);
  }
  files_.push_back(std::move(file));
  return files_.back()->stream;
}

void OutputFiles::CommitAll() {
  for (const auto& file : files_) {
    file->stream.close();
    if (!file->stream) throw ToolError(file->path + ": writing failed (disk full?)");
  }
  for (const auto& file : files_) {
    std::error_code error;
    std::filesystem::rename(file->temporary, file->path, error);
    if (error) throw ToolError(file->path + ": cannot write: " + error.message());
    file->temporary.clear();
  }
}

std::vector<std::string> OutputFiles::Paths() const {
  std::vector<std::string> paths;
  for (const auto& file : files_) paths.push_back(file->path);
  return paths;
}

}  // namespace mvda::cli
