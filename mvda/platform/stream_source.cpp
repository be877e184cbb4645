#include <mvda/platform/error.h>
#include <mvda/platform/stream_source.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <random>
#include <system_error>

#include <signal.h>
#include <unistd.h>

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

// "<name>.<pid>.<random>.partial" files of processes that have ended: a killed writer's.
void RemoveStalePartials(const std::filesystem::path& folder, const std::string& name) {
  const std::string prefix = name + ".";
  std::error_code error;
  std::filesystem::directory_iterator it(folder, error), end;
  for (; !error && it != end; it.increment(error)) {
    const std::string file = it->path().filename().string();
    if (file.size() <= prefix.size() + 8 || file.compare(0, prefix.size(), prefix) != 0 ||
        file.compare(file.size() - 8, 8, ".partial") != 0)
      continue;
    const std::string middle = file.substr(prefix.size(), file.size() - prefix.size() - 8);
    const std::size_t dot = middle.find('.');
    if (dot == 0 || dot == std::string::npos || dot > 9 ||
        middle.find_first_not_of("0123456789.") != std::string::npos)
      continue;
    const pid_t pid = static_cast<pid_t>(std::stol(middle.substr(0, dot)));
    if (::kill(pid, 0) != 0 && errno == ESRCH) {
      std::error_code ignored;
      std::filesystem::remove(it->path(), ignored);
    }
  }
}

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
  RemoveStalePartials(folder_, name);
  // The process id and a random number keep two writers of the same name (two host processes,
  // two threads) apart; the process id also tells a later writer when the file is stale.
  std::random_device random;
  const std::string suffix =
      "." + std::to_string(::getpid()) + "." + std::to_string(random()) + ".partial";
  auto stream = std::make_unique<ReplacingFileStream>(folder_ / (name + suffix), folder_ / name);
  if (!stream->is_open()) return nullptr;
  return stream;
}
