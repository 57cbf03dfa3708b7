// drxfs: the progress line of a tar extraction, from how far tar has read its archive.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "Command.h"

namespace drn::drxfs {
namespace {

constexpr auto kInterval = std::chrono::milliseconds(250);

// The processes below pid, children first.
std::vector<std::string> Descendants(const std::string& pid) {
  std::vector<std::string> found;
  std::error_code error;
  for (const auto& task : std::filesystem::directory_iterator("/proc/" + pid + "/task", error)) {
    std::ifstream children(task.path() / "children");
    for (std::string child; children >> child;) {
      found.push_back(child);
      for (std::string& below : Descendants(child)) {
        found.push_back(std::move(below));
      }
    }
  }
  return found;
}

std::string Clock(double seconds) {
  const long whole = std::lround(seconds);
  char text[32];
  static_cast<void>(std::snprintf(text, sizeof text, "%ld:%02ld", whole / 60, whole % 60));
  return text;
}

}  // namespace

ExtractionProgress::ExtractionProgress(const std::string& archive, bool show) {
  struct stat status {};
  if (!show || ::stat(archive.c_str(), &status) != 0) {
    return;
  }
  device = status.st_dev;
  inode = status.st_ino;
  total = static_cast<std::uint64_t>(status.st_size);
  start = std::chrono::steady_clock::now();
  worker = std::thread([this] {
    std::unique_lock<std::mutex> lock(mutex);
    while (!stopped.wait_for(lock, kInterval, [this] { return finished; })) {
      Show(ReadPosition(), false);
    }
  });
}

ExtractionProgress::~ExtractionProgress() {
  Finish(false);
}

void ExtractionProgress::Finish(bool complete) {
  if (!worker.joinable()) {
    return;
  }
  {
    const std::lock_guard<std::mutex> lock(mutex);
    finished = true;
  }
  stopped.notify_all();
  worker.join();
  Show(complete ? total : position, true);
}

std::uint64_t ExtractionProgress::ReadPosition() {
  // tar's descriptor of the archive, found once: fdinfo's "pos" is how far tar has read, learnt
  // without touching the data path.
  if (positionFile.empty()) {
    for (const std::string& pid : Descendants(std::to_string(::getpid()))) {
      std::error_code error;
      for (const auto& fd : std::filesystem::directory_iterator("/proc/" + pid + "/fd", error)) {
        struct stat status {};
        if (::stat(fd.path().c_str(), &status) == 0 && status.st_dev == device &&
            status.st_ino == inode) {
          positionFile = "/proc/" + pid + "/fdinfo/" + fd.path().filename().string();
          position = 0;
        }
      }
    }
  }
  std::ifstream info(positionFile);
  std::string key;
  std::uint64_t read = 0;
  if (!positionFile.empty() && info >> key >> read && key == "pos:") {
    position = std::max(position, std::min(read, total));
  } else {
    positionFile.clear();  // that tar has ended: an install lists, then extracts
  }
  return position;
}

void ExtractionProgress::Show(std::uint64_t done, bool last) {
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const double rate = seconds > 0 ? static_cast<double>(done) / seconds : 0;
  std::ostringstream line;
  line << '\r' << (total == 0 ? 100 : done * 100 / total) << "% " << FormatSize(done, true)
       << " of " << FormatSize(total, true) << ", "
       << FormatSize(static_cast<std::uint64_t>(rate), true) << "/s, "
       << (rate > 0 ? Clock(static_cast<double>(total - done) / rate) : std::string("-:--"))
       << " left";
  std::string text = line.str();
  const std::size_t length = text.size();
  // Blanks over what is left of a longer previous line.
  text.append(shownLength > length ? shownLength - length : 0, ' ');
  shownLength = length;
  if (last) {
    text += '\n';
  }
  if (::write(STDERR_FILENO, text.data(), text.size()) < 0) {
    return;  // standard error gone: the extraction goes on without its line
  }
}

}  // namespace drn::drxfs
