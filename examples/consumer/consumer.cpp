// Uses the installed library: paths, files (one on the durable layer), an atomic replacement, a
// directory, the log records, and a derived system-call layer that the library calls back. Exits 1
// when any answer is wrong.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>

#include "AtomicFile.h"
#include "Directory.h"
#include "DurableLinuxApi.h"
#include "File.h"
#include "LinuxApi.h"
#include "LogClient.h"
#include "Path.h"
#include "SystemCallWrapper.h"

namespace {

// Keeps the real C library except for access, which it counts.
class CountingApi : public drn::LinuxApi {
 public:
  explicit CountingApi(int& calls) : calls(calls) {}

 protected:
  int DoAccess(const char* path, int mode) override {
    ++calls;
    return LinuxApi::DoAccess(path, mode);
  }

 private:
  int& calls;
};

bool Check(bool condition, const char* what) {
  if (!condition) {
    std::cerr << "consumer: wrong: " << what << '\n';
  }
  return condition;
}

}  // namespace

int main() {
  char pattern[] = "/tmp/drx_consumer_XXXXXX";
  if (::mkdtemp(pattern) == nullptr) {
    std::perror("consumer: mkdtemp");
    return 1;
  }
  const std::string dir = pattern;
  const std::string file = dir + "/hello.txt";

  int records = 0;
  drn::LogClient::SetLevelFilter([](drn::LogLevel) { return true; });
  drn::LogClient::SetSink([&records](const drn::LogRecord&) { ++records; });

  int accessCalls = 0;
  const drn::Path path(file, std::make_unique<CountingApi>(accessCalls));
  bool ok = Check(!path.Exists(), "a new path exists");
  ok &= Check(drn::File::CreateFile(file), "CreateFile failed");
  ok &= Check(path.Exists() && !path.IsDirectory(), "the created file is not a file");
  ok &= Check(path.Basename() == "hello.txt", "wrong base name");
  ok &= Check(accessCalls > 0, "the derived system-call layer was not called");
  ok &= Check(drn::File::GetFileSize(file) == 0, "a new file is not empty");
  {
    drn::File::Options options;
    options.path = &path;
    options.openForWrite = true;
    options.writeBufferSize = 64;
    drn::File output(options, std::make_unique<drn::DurableLinuxApi>());
    output << "hello" << std::flush;
    ok &= Check(static_cast<bool>(output), "writing through a durable File failed");
  }
  {
    drn::AtomicFile replacement(file);
    replacement << "world";
    ok &= Check(replacement.Commit(), "replacing through AtomicFile failed");
    ok &= Check(drn::File::GetFileSize(file) == 5, "the replaced file does not hold 5 bytes");
  }
  drn::Directory directory(std::make_shared<drn::Path>(dir),
                           std::make_shared<drn::SystemCallWrapper>());
  ok &= Check(directory.GetDirectorySize() == 5, "the directory does not hold the 5 bytes");
  ok &= Check(!drn::File::CreateFile(dir + "/missing/f") && records == 1,
              "a failed create made no log record");

  std::cout << "consumer: " << path.GetPath() << " holds " << drn::File::GetFileSize(file)
            << " bytes, " << records << " log record for the failure\n";
  ::unlink(file.c_str());
  ::rmdir(dir.c_str());
  return ok ? 0 : 1;
}
