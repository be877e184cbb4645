#include <mvda/platform/error.h>
#include <mvda/platform/stream_source.h>

#include <cstring>
#include <fstream>
#include <random>
#include <system_error>

namespace {

void CheckName(const std::string& name, const char* where) {
  bool plain = !name.empty() && name.find("..") == std::string::npos && name.back() != '.' &&
               name.back() != ' ';
  for (const char c : name) {
    const auto u = static_cast<unsigned char>(c);
    if (u < 0x20 || u == 0x7f || std::strchr("/\\:<>\"|?*", c) != nullptr) plain = false;
  }
  if (!plain)
    throw NCError(std::string("TwFolderStreamSource::") + where + ": \"" + name +
                  "\" is not a plain file name");
}

// Writes to `temporary` and, when destroyed in a good state, moves it over `target`.
class ReplacingFileStream : public std::ofstream {
 public:
  ReplacingFileStream(std::filesystem::path temporary, std::filesystem::path target)
      : std::ofstream(temporary, std::ios::binary | std::ios::trunc),
        temporary_(std::move(temporary)),
        target_(std::move(target)) {}
  ~ReplacingFileStream() override {
    if (!is_open()) return;
    close();  // flushes; a failed flush sets failbit
    std::error_code error;
    if (!fail()) std::filesystem::rename(temporary_, target_, error);
    if (fail() || error) std::filesystem::remove(temporary_, error);
  }

 private:
  std::filesystem::path temporary_, target_;
};

}  // namespace

TwStreamSource::~TwStreamSource() = default;

TwFolderStreamSource::TwFolderStreamSource(std::filesystem::path folder)
    : folder_(std::move(folder)) {}

TwFolderStreamSource::~TwFolderStreamSource() = default;

std::unique_ptr<std::istream> TwFolderStreamSource::OpenInputStream(const std::string& name) {
  CheckName(name, "OpenInputStream");
  const std::filesystem::path path = folder_ / name;
  std::error_code error;
  if (!std::filesystem::is_regular_file(path, error)) return nullptr;
  auto stream = std::make_unique<std::ifstream>(path, std::ios::binary);
  if (!stream->is_open()) return nullptr;
  return stream;
}

std::unique_ptr<std::ostream> TwFolderStreamSource::OpenOutputStream(const std::string& name) {
  CheckName(name, "OpenOutputStream");
  std::error_code error;
  std::filesystem::create_directories(folder_, error);
  if (error) return nullptr;
  // A random suffix keeps two writers of the same name (two host processes) apart.
  std::random_device random;
  const std::string suffix = "." + std::to_string(random()) + ".partial";
  auto stream = std::make_unique<ReplacingFileStream>(folder_ / (name + suffix), folder_ / name);
  if (!stream->is_open()) return nullptr;
  return stream;
}
