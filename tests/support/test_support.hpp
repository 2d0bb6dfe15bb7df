// Helpers shared by the test suites: private temporary directories, running
// the built binary with a deadline, and waiting for a condition.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tovel::test {

// Path of the built tovel-ptyd binary.
inline const char* binaryPath() {
    return TOVEL_PTYD_BINARY;
}

// A short private directory under /tmp, removed with its contents.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    [[nodiscard]] const std::string& path() const { return path_; }
    // Writes a file below the directory, creating parent folders.
    void writeFile(const std::string& relative, const std::string& content) const;

  private:
    std::string path_;
};

// Environment changes for a child: nullopt unsets.
using Env = std::map<std::string, std::optional<std::string>>;
// Applies them to this process (a forked child's).
void applyEnv(const Env& env);

struct RunResult {
    int status = -1; // exit status, or 128 + signal
    std::string out;
    std::string err;
};

struct RunOptions {
    Env env;
    std::string input; // fed to standard input
    std::chrono::milliseconds deadline{10000};
};

// Running against the runtime directory `dir`: no colour, and a plain
// /bin/sh login shell whose HOME is `dir`, so that start-up files stay empty.
RunOptions runtimeOptions(const std::string& dir);

// Runs the binary with `args`, collecting both streams; killed at the deadline.
RunResult runBinary(const std::vector<std::string>& args, const RunOptions& options = {});

// The built binary running with a fresh PTY as its controlling terminal, in
// a session of its own. The destructor kills its process group.
class PtyProcess {
  public:
    PtyProcess(const std::vector<std::string>& args, const RunOptions& options,
               unsigned short cols = 80, unsigned short rows = 24);
    ~PtyProcess();
    PtyProcess(const PtyProcess&) = delete;
    PtyProcess& operator=(const PtyProcess&) = delete;

    [[nodiscard]] int pid() const { return pid_; }
    [[nodiscard]] int master() const { return master_; }
    // Everything read from the terminal so far.
    [[nodiscard]] const std::string& output() const { return output_; }
    // Reads until `needle` has appeared in output() or the deadline passes.
    bool readUntil(const std::string& needle,
                   std::chrono::milliseconds deadline = std::chrono::milliseconds(5000));
    void write(const std::string& bytes);
    void resize(unsigned short cols, unsigned short rows);
    // Waits for the process to end, reading its output meanwhile; the exit
    // status (128 + signal when killed), or -1 at the deadline.
    int waitExit(std::chrono::milliseconds deadline = std::chrono::milliseconds(5000));

  private:
    bool readSome(int timeoutMs);
    int pid_ = -1;
    int master_ = -1;
    int status_ = -1;
    std::string output_;
};

// Polls `condition` every few milliseconds until it holds or the deadline passes.
bool waitUntil(const std::function<bool()>& condition,
               std::chrono::milliseconds deadline = std::chrono::milliseconds(5000));

// The whole content of a file; empty when it cannot be read.
std::string readFile(const std::string& path);

// Milliseconds left until `end`, never below zero.
int millisecondsUntil(std::chrono::steady_clock::time_point end);

} // namespace tovel::test
