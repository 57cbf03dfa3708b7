// Untar and TarApi: tar as a child process behind a pipe, and archive listing and extraction.
#include "Untar.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include "Log.h"

namespace drn {

std::vector<char*> ConvertArgs(std::vector<std::string>& args) {
  if (args.empty() || args.front() != "tar") {
    args.insert(args.begin(), "tar");
  }
  std::vector<char*> argv;
  argv.reserve(args.size() + 1);
  for (std::string& arg : args) {
    argv.push_back(arg.data());
  }
  argv.push_back(nullptr);
  return argv;
}

int ClosePipe(int readEnd, int writeEnd) {
  const int first = ::close(readEnd);
  const int second = ::close(writeEnd);
  if (first == 0 && second == 0) {
    return 0;
  }
  const int error = errno;
  DRN_LOG(LogLevel::Error, LogCategory::Tar) << "failed to close pipe: " << error;
  return first != 0 ? second : 0;
}

std::string ReadFD(int fd) {
  std::ostringstream text;
  char byte = 0;
  while (::read(fd, &byte, 1) == 1) {
    text.put(byte);
  }
  return text.str();
}

namespace {

// The two ends of RunCmd's pipe, closed through ClosePipe (with its record) when RunCmd leaves
// by an exception; the ordinary paths close them themselves, in their own order.
class PipeEnds {
 public:
  PipeEnds(int readEnd, int writeEnd) : readEnd(readEnd), writeEnd(writeEnd) {}
  ~PipeEnds() {
    if (open) {
      ClosePipe(readEnd, writeEnd);
    }
  }
  PipeEnds(const PipeEnds&) = delete;
  PipeEnds& operator=(const PipeEnds&) = delete;

  int Close() {
    open = false;
    return ClosePipe(readEnd, writeEnd);
  }

  const int readEnd;
  const int writeEnd;

 private:
  bool open = true;
};

}  // namespace

TarApi::~TarApi() = default;

std::pair<std::string, int> TarApi::RunCmd(std::vector<std::string>& args) {
  int fds[2] = {-1, -1};
  if (::pipe2(fds, O_NONBLOCK) != 0) {
    const int error = errno;
    DRN_LOG(LogLevel::Error, LogCategory::Tar) << "failed to pipe: " << error;
    return {std::string(), -error};
  }
  PipeEnds pipe(fds[0], fds[1]);
  const int readEnd = pipe.readEnd;
  const int writeEnd = pipe.writeEnd;
  std::vector<char*> argv = ConvertArgs(args);

  const pid_t pid = ::fork();
  if (pid < 0) {
    const int error = errno;
    pipe.Close();
    std::string text = "Failed to fork: ";
    for (const std::string& arg : args) {
      text += arg;
    }
    DRN_LOG(LogLevel::Error, LogCategory::Tar) << text;
    return {std::string(), -error};
  }
  if (pid == 0) {
    if (::dup2(writeEnd, STDOUT_FILENO) < 0) {
      std::exit(-1);
    }
    if (::dup2(writeEnd, STDERR_FILENO) < 0) {
      std::exit(-1);
    }
    std::exit(::execvp("tar", argv.data()));
  }

  int status = 0;
  if (::waitpid(pid, &status, 0) < 0) {
    const int error = errno;
    DRN_LOG(LogLevel::Error, LogCategory::Tar) << "waitpid failure: " << std::strerror(error);
    pipe.Close();
    throw std::runtime_error("waitpid failure");
  }
  std::string output = ReadFD(readEnd);
  pipe.Close();
  if (!WIFEXITED(status)) {
    DRN_LOG(LogLevel::Error, LogCategory::Tar) << "child process did not exit: " << status;
    throw std::runtime_error("child process did not exit");
  }
  const int exitStatus = WEXITSTATUS(status);
  if (exitStatus != 0) {
    DRN_LOG(LogLevel::Error, LogCategory::Tar) << "tar returned " << exitStatus << ",\n" << output;
  }
  return {std::move(output), exitStatus};
}

struct Untar::Impl {
  explicit Impl(std::shared_ptr<PathIF> archivePath)
      : runner(std::make_shared<TarApi>()), archive(std::move(archivePath)) {
    // A null archive is as unusable as a missing one and is reported the same way.
    if (!archive || !archive->Exists() || archive->IsDirectory()) {
      DRN_LOG(LogLevel::Error, LogCategory::Tar)
          << "path is not a file: " << (archive ? archive->GetPath() : std::string_view());
      throw std::runtime_error("Path is not a file");
    }
  }

  std::shared_ptr<TarApi> runner;
  std::shared_ptr<PathIF> archive;
};

Untar::Untar(std::shared_ptr<PathIF> archive, std::shared_ptr<TarApi> runner)
    : impl(std::make_unique<Impl>(std::move(archive))) {
  if (runner) {
    impl->runner = std::move(runner);
  }
}

Untar::~Untar() = default;
Untar::Untar(Untar&& other) noexcept = default;
Untar& Untar::operator=(Untar&& other) noexcept = default;

// NOLINTNEXTLINE(performance-unnecessary-value-param): the interface hands each override a copy.
int Untar::DoExtract(std::shared_ptr<PathIF> destination) {
  if (!destination || !destination->Exists() || !destination->IsDirectory()) {
    DRN_LOG(LogLevel::Error, LogCategory::Tar)
        << "specified path is not an existing directory: "
        << (destination ? destination->GetPath() : std::string_view());
    return -1;
  }
  std::vector<std::string> args = {"--warning=no-timestamp", "-xf",
                                   std::string(impl->archive->GetPath()), "-C",
                                   std::string(destination->GetPath())};
  return impl->runner->RunCmd(args).second;
}

std::vector<std::string> Untar::DoFileList() {
  std::vector<std::string> args = {"-tf", std::string(impl->archive->GetPath())};
  const auto [output, status] = impl->runner->RunCmd(args);
  if (status != 0) {
    DRN_LOG(LogLevel::Error, LogCategory::Tar)
        << "Tar command failed: " << status << ", " << output;
    return {};
  }
  std::vector<std::string> names;
  std::string_view::size_type start = 0;
  while (start <= output.size()) {
    std::string_view::size_type end = output.find('\n', start);
    if (end == std::string::npos) {
      end = output.size();
    }
    const std::string_view piece = std::string_view(output).substr(start, end - start);
    // Directories are listed with a trailing '/'; only the files inside them are wanted.
    if (!piece.empty() && piece.back() != '/') {
      names.emplace_back(piece);
    }
    start = end + 1;
  }
  return names;
}

}  // namespace drn
