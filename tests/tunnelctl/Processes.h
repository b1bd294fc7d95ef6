#pragma once

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

// The command against the daemon, each in a process of its own, over a real socket.

namespace Tunnelctl {

inline std::string contents(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline bool eventually(const std::function<bool()>& holds) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!holds()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

// A running command with its output in files. Killed when it goes out of scope.
class Process {
 public:
  Process(const std::vector<std::string>& command, const std::string& output)
      : output_(output) {
    std::vector<char*> argv;
    for (const std::string& word : command)
      argv.push_back(const_cast<char*>(word.c_str()));
    argv.push_back(nullptr);
    // Not left to the child: what an earlier command said must not be read as this one's.
    std::filesystem::remove(output + ".out");
    std::filesystem::remove(output + ".err");
    pid_ = fork();
    if (pid_ == 0) {
      const int out = open((output + ".out").c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600);
      const int err = open((output + ".err").c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600);
      dup2(out, STDOUT_FILENO);
      dup2(err, STDERR_FILENO);
      execv(argv[0], argv.data());
      _exit(127);
    }
  }
  ~Process() {
    if (pid_ > 0) end(SIGKILL);
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  // Its exit status, or 128 and the signal it died of.
  int join() {
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  void send(int signal) { kill(pid_, signal); }
  int end(int signal) {
    send(signal);
    return join();
  }
  std::string out() const { return contents(output_ + ".out"); }
  std::string err() const { return contents(output_ + ".err"); }
  std::string said() const { return out() + err(); }

 private:
  std::string output_;
  pid_t pid_ = -1;
};

struct Result {
  int status;
  std::string out, err;
};

class ProcessesThreads : public testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/tunnelctlXXXXXX";
    ASSERT_TRUE(mkdtemp(name));
    directory_ = name;
    socket_ = directory_ + "/hivel.sock";
    startDaemon();
  }
  void TearDown() override {
    daemon_.reset();
    std::filesystem::remove_all(directory_);
  }
  void startDaemon() {
    daemon_ = std::make_unique<Process>(
        std::vector<std::string>{HOUSE_BIN_DIR "/hiveld", "--socket", socket_, "--types",
                                 HOUSE_LIB_DIR "/libTunnelHivelTypes.so.0", "--types",
                                 HOUSE_LIB_DIR "/libLinuxTunnel.so.0"},
        directory_ + "/hiveld");
    ASSERT_TRUE(eventually([&] { return ctl({"status"}).status == 0; }))
        << daemon_->err();
  }
  std::unique_ptr<Process> start(std::vector<std::string> arguments) {
    std::vector<std::string> command = {HOUSE_BIN_DIR "/tunnelctl", "-s", socket_};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return std::make_unique<Process>(command,
                                     directory_ + "/run" + std::to_string(++runs_));
  }
  Result ctl(std::vector<std::string> arguments) {
    const auto process = start(std::move(arguments));
    const int status = process->join();
    return {status, process->out(), process->err()};
  }
  std::string file(const std::string& name, const std::string& text) {
    std::ofstream(directory_ + "/" + name) << text;
    return directory_ + "/" + name;
  }
  std::unique_ptr<Process> startMonitor(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "monitor");
    auto monitor = start(std::move(arguments));
    EXPECT_TRUE(eventually([&] {
      const std::string out = monitor->out();
      return out.find("changes from here on") != out.npos ||
             out.find("\"mark\"") != out.npos;
    })) << monitor->err();
    return monitor;
  }

  std::string directory_, socket_;
  std::unique_ptr<Process> daemon_;
  int runs_ = 0;
};

}  // namespace Tunnelctl
