#include <mvda/platform/error.h>
#include <mvda/platform/temp_file.h>

#include <atomic>
#include <cstdio>
#include <mutex>
#include <random>
#include <system_error>
#include <utility>

namespace {

std::mutex query_mutex;  // guards custom_query
TwDiskFreeSpaceQuery custom_query;

// 64 random bits per name: a fresh seed from the system mixed with a process-wide counter, so that
// names stay distinct even where random_device is deterministic.
std::string RandomHex() {
  static std::atomic<std::uint64_t> counter{0};
  std::random_device device;
  std::uint64_t bits = (std::uint64_t(device()) << 32) ^ device();
  bits ^= (counter.fetch_add(1) + 1) * 0x9E3779B97F4A7C15ull;
  static const char kHex[] = "0123456789abcdef";
  std::string text(16, '0');
  for (int i = 15; i >= 0; --i, bits >>= 4) text[i] = kHex[bits & 15];
  return text;
}

}  // namespace

std::filesystem::path TwGetTempDirectory() {
  std::error_code error;
  std::filesystem::path directory = std::filesystem::temp_directory_path(error);
  if (error || directory.empty())
    throw NCError("TwGetTempDirectory: the system names no temporary directory (" +
                  error.message() + ")");
  return directory;
}

std::filesystem::path TwGetTempFileName(const std::string& prefix, const std::string& extension) {
  const std::filesystem::path directory = TwGetTempDirectory();
  // A clash with an existing name is next to impossible; a few tries cover it, and a directory
  // that refuses every try is not writable.
  for (int attempt = 0; attempt < 16; ++attempt) {
    std::filesystem::path path = directory / (prefix + RandomHex() + "." + extension);
    // "x": create exclusively, fail if the name exists.
    if (std::FILE* file = std::fopen(path.string().c_str(), "wbx")) {
      std::fclose(file);
      return path;
    }
  }
  throw NCError("TwGetTempFileName: no temporary file could be created in " + directory.string());
}

TwTempFile::TwTempFile(const std::string& prefix, const std::string& extension) {
  path_ = TwGetTempFileName(prefix, extension);
  stream_.open(path_, std::ios::in | std::ios::out | std::ios::binary);
  if (!stream_.is_open()) {
    std::error_code error;
    std::filesystem::remove(path_, error);
    throw NCError("The temporary file " + path_.string() + " could not be opened");
  }
}

TwTempFile::~TwTempFile() {
  stream_.close();
  std::error_code error;  // nothing more can be done about a file that will not go
  std::filesystem::remove(path_, error);
}

bool TwGetDiskFreeSpace(const std::filesystem::path& directory, std::uintmax_t& freeBytes) {
  TwDiskFreeSpaceQuery query;
  {
    std::lock_guard<std::mutex> lock(query_mutex);
    query = custom_query;
  }
  if (query) return query(directory, freeBytes);
  std::error_code error;
  const std::filesystem::space_info space = std::filesystem::space(directory, error);
  if (error || space.available == static_cast<std::uintmax_t>(-1)) return false;
  freeBytes = space.available;
  return true;
}

void TwSetDiskFreeSpaceQuery(TwDiskFreeSpaceQuery query) {
  std::lock_guard<std::mutex> lock(query_mutex);
  custom_query = std::move(query);
}
