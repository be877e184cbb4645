// Runs the mvda executable (or another program) as a child process and collects its exit code,
// stdout and stderr, with a bounded wait: a hung tool fails its test instead of the whole run.
#ifndef MVDA_TESTS_APPS_RUN_TOOL_H_
#define MVDA_TESTS_APPS_RUN_TOOL_H_

#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

struct ToolRun {
  int exit_code = -1;  // -1: killed after the time limit; 128 + n: ended by signal n
  std::string out, err;
};

// Starts `args` (args[0] the program, run in `cwd` if given) with stdout and stderr on pipes,
// whose reading ends it returns in out_pipe[0] and err_pipe[0]; -1 if no process was started.
inline pid_t StartProgram(const std::vector<std::string>& args, const std::string& cwd,
                          int (&out_pipe)[2], int (&err_pipe)[2]) {
  if (pipe(out_pipe) != 0 || pipe(err_pipe) != 0) return -1;
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(out_pipe[1], 1);
    dup2(err_pipe[1], 2);
    close(out_pipe[0]);
    close(err_pipe[0]);
    if (!cwd.empty() && chdir(cwd.c_str()) != 0) _exit(126);
    std::vector<char*> argv;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(out_pipe[1]);
  close(err_pipe[1]);
  return pid;
}

// Runs `args` (args[0] the program) with stdout and stderr on pipes; `signal_after` > 0 sends
// SIGINT that many seconds after the start, as Ctrl-C would.
inline ToolRun RunProgram(const std::vector<std::string>& args, double timeout_s = 300,
                          double signal_after = 0, const std::string& cwd = "") {
  int out_pipe[2], err_pipe[2];
  const pid_t pid = StartProgram(args, cwd, out_pipe, err_pipe);
  if (pid < 0) return {};
  ToolRun run;
  const auto start = std::chrono::steady_clock::now();
  bool signalled = false;
  pollfd fds[2] = {{out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}};
  int open_pipes = 2;
  while (open_pipes > 0) {
    const double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (signal_after > 0 && !signalled && elapsed >= signal_after) {
      kill(pid, SIGINT);
      signalled = true;
    }
    if (elapsed > timeout_s) {
      kill(pid, SIGKILL);
      break;
    }
    if (poll(fds, 2, 50) <= 0) continue;
    for (int k = 0; k < 2; ++k) {
      if (fds[k].fd < 0 || !(fds[k].revents & (POLLIN | POLLHUP))) continue;
      char buffer[65536];
      const ssize_t got = read(fds[k].fd, buffer, sizeof buffer);
      if (got <= 0) {
        close(fds[k].fd);
        fds[k].fd = -1;
        --open_pipes;
      } else {
        (k == 0 ? run.out : run.err).append(buffer, static_cast<std::size_t>(got));
      }
    }
  }
  for (const pollfd& f : fds) {
    if (f.fd >= 0) close(f.fd);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  const double elapsed =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (elapsed > timeout_s) return run;  // exit_code stays -1
  if (WIFEXITED(status)) run.exit_code = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) run.exit_code = 128 + WTERMSIG(status);
  return run;
}

inline ToolRun RunTool(std::vector<std::string> args, double timeout_s = 300) {
  args.insert(args.begin(), MVDA_CLI_EXE);
  return RunProgram(args, timeout_s);
}

// Runs `args` like RunProgram, sends SIGINT as soon as stderr shows `marker`, and waits at most
// `wait_s` seconds after that for the exit (exit_code -1 and a SIGKILL otherwise). Signalling on
// what the tool reports, not after a fixed time, keeps the test independent of the machine's
// speed.
inline ToolRun RunProgramUntil(const std::vector<std::string>& args, const std::string& marker,
                               double wait_s) {
  int out_pipe[2], err_pipe[2];
  const pid_t pid = StartProgram(args, "", out_pipe, err_pipe);
  if (pid < 0) return {};
  ToolRun run;
  using Clock = std::chrono::steady_clock;
  const Clock::time_point start = Clock::now();
  Clock::time_point signalled;
  bool sent = false, killed = false;
  pollfd fds[2] = {{out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}};
  int open_pipes = 2;
  while (open_pipes > 0) {
    const Clock::time_point now = Clock::now();
    if (!sent && run.err.find(marker) != std::string::npos) {
      kill(pid, SIGINT);
      sent = true;
      signalled = now;
    }
    // Bounded either way: the marker must come within 10 minutes, the exit within wait_s.
    if ((sent && std::chrono::duration<double>(now - signalled).count() > wait_s) ||
        std::chrono::duration<double>(now - start).count() > 600) {
      kill(pid, SIGKILL);
      killed = true;
      break;
    }
    if (poll(fds, 2, 20) <= 0) continue;
    for (pollfd& f : fds) {
      if (f.fd < 0 || !(f.revents & (POLLIN | POLLHUP))) continue;
      char buffer[65536];
      const ssize_t got = read(f.fd, buffer, sizeof buffer);
      if (got <= 0) {
        close(f.fd);
        f.fd = -1;
        --open_pipes;
      } else {
        (&f == &fds[0] ? run.out : run.err).append(buffer, static_cast<std::size_t>(got));
      }
    }
  }
  for (const pollfd& f : fds) {
    if (f.fd >= 0) close(f.fd);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  if (killed || !sent) return run;  // -1: never signalled, or no exit in time
  if (WIFEXITED(status)) run.exit_code = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) run.exit_code = 128 + WTERMSIG(status);
  return run;
}

// A fresh folder under the system temporary directory, removed with its contents at the end.
class ScratchDir {
 public:
  explicit ScratchDir(const std::string& name) {
    path_ = std::filesystem::temp_directory_path() /
            ("mvda_apps_test_" + name + "_" + std::to_string(getpid()));
    std::filesystem::remove_all(path_);
    std::filesystem::create_directories(path_);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  ~ScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  std::string operator/(const std::string& file) const { return (path_ / file).string(); }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

inline void WriteText(const std::string& path, const std::string& text) {
  std::FILE* f = std::fopen(path.c_str(), "wb");
  std::fwrite(text.data(), 1, text.size(), f);
  std::fclose(f);
}

#endif  // MVDA_TESTS_APPS_RUN_TOOL_H_
