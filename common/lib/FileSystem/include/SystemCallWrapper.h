// Wide, substitutable wrapper over signal, epoll, statistics, message-queue, SMBus, ioctl,
// mapping, mount and system-information calls.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <linux/input.h>
#include <mqueue.h>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>

#include "FileSystemExport.h"

extern "C" {
#include <i2c/smbus.h>
}

namespace drn {

// Each operation calls the function of the same name with its arguments unchanged and returns
// its result with errno as the call left it; it never checks, logs or throws. A substitute
// derives from this class and overrides the operations it scripts.
class DRN_EXPORT SystemCallWrapper {
 public:
  virtual ~SystemCallWrapper();

  // The function of the same name, called with the arguments unchanged.
  // @{
  virtual int kill(pid_t pid, int signal) { return ::kill(pid, signal); }
  virtual int pthread_sigmask(int how, const sigset_t* set, sigset_t* oldSet) {
    return ::pthread_sigmask(how, set, oldSet);
  }
  virtual int sigemptyset(sigset_t* set) { return ::sigemptyset(set); }
  virtual int sigaddset(sigset_t* set, int signal) { return ::sigaddset(set, signal); }
  virtual int sigwait(const sigset_t* set, int* signal) { return ::sigwait(set, signal); }
  virtual int epoll_wait(int epfd, epoll_event* events, int maxEvents, int timeout) {
    return ::epoll_wait(epfd, events, maxEvents, timeout);
  }
  virtual int epoll_ctl(int epfd, int op, int fd, epoll_event* event) {
    return ::epoll_ctl(epfd, op, fd, event);
  }
  virtual int epoll_create1(int flags) { return ::epoll_create1(flags); }
  virtual int statfs(const char* path, struct statfs* buf) { return ::statfs(path, buf); }
  virtual int statvfs(const char* path, struct statvfs* buf) { return ::statvfs(path, buf); }
  virtual int remove(const char* path) { return ::remove(path); }
  virtual int chdir(const char* path) { return ::chdir(path); }
  virtual DIR* opendir(const char* path) { return ::opendir(path); }
  virtual dirent* readdir(DIR* dir) { return ::readdir(dir); }
  virtual int closedir(DIR* dir) { return ::closedir(dir); }
  virtual int open(const char* path, int flags) { return ::open(path, flags); }
  virtual int close(int fd) { return ::close(fd); }
  virtual int flock(int fd, int operation) { return ::flock(fd, operation); }
  virtual int stat(const char* path, struct stat* buf) { return ::stat(path, buf); }
  virtual int fstat(int fd, struct stat* buf) { return ::fstat(fd, buf); }
  virtual int lstat(const char* path, struct stat* buf) { return ::lstat(path, buf); }
  virtual mqd_t mq_open(const char* name, int flags) { return ::mq_open(name, flags); }
  virtual mqd_t mq_open(const char* name, int flags, mode_t mode, mq_attr* attributes) {
    return ::mq_open(name, flags, mode, attributes);
  }
  virtual int mq_close(mqd_t queue) { return ::mq_close(queue); }
  virtual int mq_unlink(const char* name) { return ::mq_unlink(name); }
  virtual ssize_t mq_receive(mqd_t queue, char* buffer, size_t length, unsigned int* priority) {
    return ::mq_receive(queue, buffer, length, priority);
  }
  virtual ssize_t mq_timedreceive(mqd_t queue, char* buffer, size_t length, unsigned int* priority,
                                  const timespec* timeout) {
    return ::mq_timedreceive(queue, buffer, length, priority, timeout);
  }
  virtual int mq_send(mqd_t queue, const char* buffer, size_t length, unsigned int priority) {
    return ::mq_send(queue, buffer, length, priority);
  }
  virtual int mq_getattr(mqd_t queue, mq_attr* attributes) {
    return ::mq_getattr(queue, attributes);
  }
  // Stores a 64-bit value into the user-data field of an epoll event; makes no call.
  virtual void store_value(epoll_event* event, std::uint64_t value) { event->data.u64 = value; }
  virtual int ioctl(int fd, unsigned long request, void* argument) {
    return ::ioctl(fd, request, argument);
  }
  virtual void* mmap(void* address, size_t length, int protection, int flags, int fd,
                     off_t offset) {
    return ::mmap(address, length, protection, flags, fd, offset);
  }
  virtual int munmap(void* address, size_t length) { return ::munmap(address, length); }
  virtual __s32 i2c_smbus_read_i2c_block_data(int file, __u8 command, __u8 length, __u8* values) {
    return ::i2c_smbus_read_i2c_block_data(file, command, length, values);
  }
  virtual __s32 i2c_smbus_write_i2c_block_data(int file, __u8 command, __u8 length,
                                               const __u8* values) {
    return ::i2c_smbus_write_i2c_block_data(file, command, length, values);
  }
  virtual __s32 i2c_smbus_read_byte_data(int file, __u8 command) {
    return ::i2c_smbus_read_byte_data(file, command);
  }
  virtual __s32 i2c_smbus_read_byte(int file) { return ::i2c_smbus_read_byte(file); }
  virtual __s32 i2c_smbus_write_byte_data(int file, __u8 command, __u8 value) {
    return ::i2c_smbus_write_byte_data(file, command, value);
  }
  virtual __s32 i2c_smbus_read_word_data(int file, __u8 command) {
    return ::i2c_smbus_read_word_data(file, command);
  }
  virtual __s32 i2c_smbus_write_word_data(int file, __u8 command, __u16 value) {
    return ::i2c_smbus_write_word_data(file, command, value);
  }
  virtual __s32 i2c_smbus_write_byte(int file, __u8 value) {
    return ::i2c_smbus_write_byte(file, value);
  }
  // The value itself is the third argument, widened without sign extension.
  virtual int ioctl(int fd, unsigned long request, std::uint8_t value) {
    return ::ioctl(fd, request, static_cast<unsigned long>(value));
  }
  // The call sees the address of a local copy: what the kernel writes there is not returned.
  virtual int ioctl(int fd, unsigned long request, input_event record) {
    return ::ioctl(fd, request, &record);
  }
  virtual int ioctl(int fd, unsigned long request, unsigned long argument) {
    return ::ioctl(fd, request, argument);
  }
  virtual int ioctl(int fd, unsigned long request, long argument) {
    return ::ioctl(fd, request, argument);
  }
  virtual int ioctl(int fd, unsigned long request) { return ::ioctl(fd, request); }
  virtual int mount(const char* source, const char* target, const char* type, unsigned long flags,
                    const void* data) {
    return ::mount(source, target, type, flags, data);
  }
  virtual int umount(const char* target) { return ::umount(target); }
  virtual int reboot(int command) { return ::reboot(command); }
  virtual int gethostname(char* name, size_t length) { return ::gethostname(name, length); }
  virtual int sysinfo(struct sysinfo* info) { return ::sysinfo(info); }
  // @}
};

static_assert(sizeof(input_event) == 24 || sizeof(void*) != 8,
              "the by-value ioctl record is 24 bytes on 64-bit targets");

}  // namespace drn
