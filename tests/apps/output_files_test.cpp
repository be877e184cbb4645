// The files the tool writes are whole or absent: a run killed at any moment leaves the old file
// or the complete new one and no temporary file that a later run keeps; a file size limit, a full
// disk and a read-only folder each give one line naming the folder, and leave nothing behind.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "run_tool.h"
#include "support/csv.h"  // DataDir()

namespace {

namespace fs = std::filesystem;

std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

std::vector<std::string> FilesIn(const fs::path& dir) {
  std::vector<std::string> names;
  for (const auto& e : fs::directory_iterator(dir)) names.push_back(e.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

// Starts the tool with its output thrown away and kills it with SIGKILL after `delay`.
void RunAndKill(const std::vector<std::string>& args, std::chrono::microseconds delay) {
  const pid_t pid = fork();
  if (pid == 0) {
    std::freopen("/dev/null", "w", stdout);
    std::freopen("/dev/null", "w", stderr);
    std::vector<char*> argv{const_cast<char*>(MVDA_CLI_EXE)};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
  }
  std::this_thread::sleep_for(delay);
  kill(pid, SIGKILL);
  int status = 0;
  waitpid(pid, &status, 0);
}

// The tool with a file size limit of `limit_bytes`; exit code and stderr.
ToolRun RunWithFileSizeLimit(const std::vector<std::string>& args, rlim_t limit_bytes,
                             const std::string& err_path) {
  const pid_t pid = fork();
  if (pid == 0) {
    const rlimit limit{limit_bytes, limit_bytes};
    setrlimit(RLIMIT_FSIZE, &limit);
    std::freopen("/dev/null", "w", stdout);
    std::freopen(err_path.c_str(), "w", stderr);
    std::vector<char*> argv{const_cast<char*>(MVDA_CLI_EXE)};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  ToolRun run;
  run.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  run.err = Slurp(err_path);
  return run;
}

// A tmpfs mounted for the test (root only), unmounted at the end.
class TmpfsMount {
 public:
  TmpfsMount(const fs::path& at, const std::string& options, unsigned long flags) : at_(at) {
    fs::create_directories(at);
    mounted_ = geteuid() == 0 && mount("tmpfs", at.c_str(), "tmpfs", flags, options.c_str()) == 0;
  }
  ~TmpfsMount() {
    if (mounted_) umount(at_.c_str());
  }
  bool mounted() const { return mounted_; }

 private:
  fs::path at_;
  bool mounted_ = false;
};

TEST(OutputFiles, KilledRunLeavesTheOldOrTheCompleteNewFile) {
  ScratchDir dir("killed");
  const std::string wine = DataDir() + "/wine.csv";
  const std::string model = dir / "m.mvda", scores = dir / "s.csv";
  const std::vector<std::string> args = {"--threads", "1",           "pca",      wine,
                                         "--save",    model,         "--scores", scores,
                                         "--report",  dir / "r.html"};
  // The complete new files, and how long a whole run takes.
  const auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(RunTool(args).exit_code, 0);
  const auto whole = std::chrono::steady_clock::now() - start;
  const std::string new_model = Slurp(model), new_scores = Slurp(scores);
  ASSERT_GT(new_model.size(), 1000u);

  std::mt19937 random(11);
  std::uniform_int_distribution<long> at(
      0, std::chrono::duration_cast<std::chrono::microseconds>(whole * 1.3).count());
  int old_seen = 0, new_seen = 0;
  for (int round = 0; round < 30; ++round) {
    WriteText(model, "the previous model");
    WriteText(scores, "the,previous\nscores,1\n");
    RunAndKill(args, std::chrono::microseconds(at(random)));
    const std::string m = Slurp(model), s = Slurp(scores);
    EXPECT_TRUE(m == "the previous model" || m == new_model) << "round " << round;
    EXPECT_TRUE(s == "the,previous\nscores,1\n" || s == new_scores) << "round " << round;
    (m == new_model ? new_seen : old_seen)++;
  }
  std::printf("killed runs: %d left the old model, %d the new one\n", old_seen, new_seen);

  // A later run removes what killed runs left behind (here also one made for sure, by a process
  // that has ended), keeps a live process's file, and leaves nothing of its own.
  const pid_t ended = fork();
  if (ended == 0) _exit(0);
  waitpid(ended, nullptr, 0);
  WriteText(model + ".tmp-" + std::to_string(ended), "half a model");
  const std::string live = "s.csv.tmp-" + std::to_string(getpid());
  WriteText(dir / live, "being written");
  ASSERT_EQ(RunTool(args).exit_code, 0);
  EXPECT_EQ(FilesIn(dir.path()), (std::vector<std::string>{"m.mvda", "r.html", "s.csv", live}));
  EXPECT_EQ(Slurp(model), new_model);
}

TEST(OutputFiles, FullDiskAndReadOnlyFolderNameTheFolderAndLeaveNothing) {
  ScratchDir dir("full");
  const std::string wine = DataDir() + "/wine.csv";
  const std::string report = dir / "r.html";
  WriteText(report, "the previous report");

  // A file size limit far below the report's size.
  const ToolRun limited = RunWithFileSizeLimit(
      {"pca", wine, "--class", "Cultivar", "--report", report}, 8192, dir / "stderr.txt");
  EXPECT_EQ(limited.exit_code, 2);
  EXPECT_EQ(limited.err,
            "mvda: " + dir.path().string() + ": " + report + " exceeds the file size limit\n");
  EXPECT_EQ(Slurp(report), "the previous report");
  fs::remove(dir / "stderr.txt");
  EXPECT_EQ(FilesIn(dir.path()), std::vector<std::string>{"r.html"});

  // A full disk: a tmpfs of 16 KiB, smaller than the report.
  {
    const fs::path small = dir.path() / "small";
    TmpfsMount tmpfs(small, "size=16k", 0);
    if (tmpfs.mounted()) {
      const std::string target = (small / "r.html").string();
      const ToolRun run = RunTool({"pca", wine, "--class", "Cultivar", "--report", target});
      EXPECT_EQ(run.exit_code, 2);
      EXPECT_EQ(run.err, "mvda: " + small.string() + ": no space left to write " + target +
                             " (disk full or quota)\n");
      EXPECT_TRUE(FilesIn(small).empty());
    } else {
      std::printf("no tmpfs could be mounted (not root): the full-disk case ran as a size limit\n");
    }
  }

  // A read-only folder: a read-only tmpfs as root (who ignores permission bits), else the bits.
  const fs::path locked = dir.path() / "locked";
  TmpfsMount read_only(locked, "", MS_RDONLY);
  std::string reason = "Read-only file system";
  if (!read_only.mounted()) {
    if (geteuid() == 0) GTEST_SKIP() << "root without mount rights: no folder is read-only to it";
    fs::permissions(locked, fs::perms::owner_read | fs::perms::owner_exec);
    reason = "Permission denied";
  }
  const std::string target = (locked / "m.mvda").string();
  const ToolRun run =
      RunTool({"pca", wine, "--class", "Cultivar", "--save", target, "--report", report});
  EXPECT_EQ(run.exit_code, 2);
  EXPECT_EQ(run.err,
            "mvda: " + locked.string() + ": cannot write " + target + " here: " + reason + "\n");
  EXPECT_EQ(Slurp(report), "the previous report");  // nothing of the run is committed
  if (!read_only.mounted()) fs::permissions(locked, fs::perms::owner_all);
}

}  // namespace
