// SPDX-License-Identifier: ISC
// The modem's tty as the driver presents it, served through FUSE on a
// regular file: one whole message per write, whole read blocks per read,
// blocking reads that a signal ends with EINTR, the client-identifier ioctl,
// and unplug / removal / replug.
#pragma once
#define FUSE_USE_VERSION 35
#include <fuse_lowlevel.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "sim/runtime.h"

namespace sim {

inline constexpr unsigned kIoctlClientId = 0xC0017804;  // _IOWR('x', 4, char)

class TtyDevice {
 public:
  // Called for every write, with the device lock released, and with the
  // errno the device fails it with (0, or ENODEV on a dead handle, or the
  // write-error setting's). Returns the errno the write fails with, or 0.
  using WriteHandler = std::function<int(std::string_view, int)>;
  using Handler = std::function<void()>;

  // on_interrupt: a read waiting on the device was ended by a signal.
  TtyDevice(Recorder* recorder, WriteHandler on_write, Handler on_unplug, Handler on_interrupt);
  ~TtyDevice();

  // Mounts on `path`, which must be an existing regular file. Throws on
  // failure.
  void mount(const std::string& path);
  // Serves requests until exit() or a termination signal.
  void run();
  void exit();

  // Queues read blocks for the client.
  void push(std::vector<std::string> blocks);
  // Once the blocks queued before it are read, the handles die as by
  // unplug(), untold to the model: the tty goes away under a client that
  // reads, where a replay's script says so.
  void push_gone();

  // Every handle open now dies: reads and writes fail with ENODEV. New opens
  // get a live handle.
  void unplug();
  // As unplug, and opens fail with ENODEV until replug().
  void remove();
  void replug();

  bool set(const std::string& key, const std::string& value);
  std::string describe();

 private:
  struct PendingRead {
    fuse_req_t req;
    size_t size;
    uint64_t gen;
  };
  struct Block {
    std::string bytes;
    bool gone = false;  // not bytes: the handles die here
  };

  static void op_init(void* userdata, fuse_conn_info* conn);
  static void op_getattr(fuse_req_t req, fuse_ino_t ino, fuse_file_info* fi);
  static void op_setattr(fuse_req_t req, fuse_ino_t ino, struct stat* attr, int to_set, fuse_file_info* fi);
  static void op_open(fuse_req_t req, fuse_ino_t ino, fuse_file_info* fi);
  static void op_read(fuse_req_t req, fuse_ino_t ino, size_t size, off_t off, fuse_file_info* fi);
  static void op_write(fuse_req_t req, fuse_ino_t ino, const char* buf, size_t size, off_t off,
                       fuse_file_info* fi);
  static void op_flush(fuse_req_t req, fuse_ino_t ino, fuse_file_info* fi);
  static void op_release(fuse_req_t req, fuse_ino_t ino, fuse_file_info* fi);
  static void op_ioctl(fuse_req_t req, fuse_ino_t ino, unsigned int cmd, void* arg, fuse_file_info* fi,
                       unsigned flags, const void* in_buf, size_t in_bufsz, size_t out_bufsz);
  static void op_poll(fuse_req_t req, fuse_ino_t ino, fuse_file_info* fi, fuse_pollhandle* ph);
  static void on_interrupt(fuse_req_t req, void* data);

  static TtyDevice* self(fuse_req_t req);
  bool dead(uint64_t gen) const { return gen < dead_below_; }
  void kill_handles();
  bool pump();  // with mu_ held; true when the handles died on the way
  void notify_poll();  // with mu_ held
  void interrupted();  // a waiting read ended with EINTR

  Recorder* recorder_;
  WriteHandler on_write_;
  Handler on_unplug_;
  Handler on_interrupt_;
  fuse_session* session_ = nullptr;
  bool mounted_ = false;

  std::mutex mu_;
  std::deque<Block> out_;
  std::deque<PendingRead> reads_;
  fuse_pollhandle* poll_handle_ = nullptr;
  uint64_t gen_ = 1;         // handed to new opens
  uint64_t dead_below_ = 1;  // handles of older generations are dead
  bool removed_ = false;     // opens fail
  static constexpr uint8_t kClientId = 1;
  int write_errno_ = 0;      // setting: every write fails with it
  // Counters.
  uint64_t opens_ = 0, releases_ = 0, writes_ = 0, reads_done_ = 0, interrupts_ = 0, ioctls_ = 0;
};

}  // namespace sim
