// SPDX-License-Identifier: ISC
#include "sim/tty_device.h"

#include <errno.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>

#include <cstdio>
#include <cstring>

#include "sim/text.h"

namespace sim {

namespace {

constexpr fuse_ino_t kRoot = FUSE_ROOT_ID;

void fill_attr(struct stat* st) {
  memset(st, 0, sizeof *st);
  st->st_ino = kRoot;
  st->st_mode = S_IFREG | 0666;
  st->st_nlink = 1;
}

bool is_terminal_ioctl(unsigned cmd) {
  switch (cmd) {
    case TCGETS:
    case TCSETS:
    case TCSETSW:
    case TCSETSF:
    case TCFLSH:
      return true;
    default:
      return false;
  }
}

std::string hex_word(unsigned v) {
  char buf[16];
  snprintf(buf, sizeof buf, "0x%08x", v);
  return buf;
}

}  // namespace

TtyDevice::TtyDevice(Recorder* recorder, WriteHandler on_write, UnplugHandler on_unplug)
    : recorder_(recorder), on_write_(std::move(on_write)), on_unplug_(std::move(on_unplug)) {}

TtyDevice::~TtyDevice() {
  if (session_) {
    if (mounted_) fuse_session_unmount(session_);
    fuse_remove_signal_handlers(session_);
    fuse_session_destroy(session_);
  }
}

TtyDevice* TtyDevice::self(fuse_req_t req) { return static_cast<TtyDevice*>(fuse_req_userdata(req)); }

void TtyDevice::mount(const std::string& path) {
  static const fuse_lowlevel_ops ops = [] {
    fuse_lowlevel_ops o{};
    o.init = op_init;
    o.getattr = op_getattr;
    o.setattr = op_setattr;
    o.open = op_open;
    o.read = op_read;
    o.write = op_write;
    o.flush = op_flush;
    o.release = op_release;
    o.ioctl = op_ioctl;
    o.poll = op_poll;
    return o;
  }();
  const char* argv[] = {"wds-sim", "-o", "allow_other,fsname=wds-sim,subtype=qmitty"};
  fuse_args args = FUSE_ARGS_INIT(3, const_cast<char**>(argv));
  session_ = fuse_session_new(&args, &ops, sizeof ops, this);
  fuse_opt_free_args(&args);
  if (session_ == nullptr) throw std::runtime_error("fuse_session_new failed");
  if (fuse_set_signal_handlers(session_) != 0) throw std::runtime_error("fuse_set_signal_handlers failed");
  if (fuse_session_mount(session_, path.c_str()) != 0) throw std::runtime_error("cannot mount on " + path);
  mounted_ = true;
}

void TtyDevice::run() { fuse_session_loop(session_); }

void TtyDevice::exit() {
  if (session_) fuse_session_exit(session_);
}

void TtyDevice::op_init(void*, fuse_conn_info*) {}

void TtyDevice::op_getattr(fuse_req_t req, fuse_ino_t, fuse_file_info*) {
  struct stat st;
  fill_attr(&st);
  fuse_reply_attr(req, &st, 0);
}

void TtyDevice::op_setattr(fuse_req_t req, fuse_ino_t, struct stat*, int, fuse_file_info*) {
  // Truncation and times mean nothing for a tty; accept them.
  struct stat st;
  fill_attr(&st);
  fuse_reply_attr(req, &st, 0);
}

void TtyDevice::op_open(fuse_req_t req, fuse_ino_t, fuse_file_info* fi) {
  TtyDevice* d = self(req);
  uint64_t gen;
  {
    std::lock_guard lock(d->mu_);
    if (d->open_errno_ != 0) {
      int err = d->open_errno_;
      if (d->recorder_) d->recorder_->event("open refused " + std::string(strerrorname_np(err)));
      fuse_reply_err(req, err);
      return;
    }
    gen = d->gen_;
    ++d->opens_;
  }
  fi->direct_io = 1;
  fi->nonseekable = 1;
  fi->keep_cache = 0;
  fi->fh = gen;
  if (d->recorder_) d->recorder_->event("open gen=" + std::to_string(gen));
  fuse_reply_open(req, fi);
}

void TtyDevice::op_release(fuse_req_t req, fuse_ino_t, fuse_file_info* fi) {
  TtyDevice* d = self(req);
  {
    std::lock_guard lock(d->mu_);
    ++d->releases_;
  }
  if (d->recorder_) d->recorder_->event("release gen=" + std::to_string(fi->fh));
  fuse_reply_err(req, 0);
}

void TtyDevice::op_flush(fuse_req_t req, fuse_ino_t, fuse_file_info*) { fuse_reply_err(req, 0); }

void TtyDevice::on_interrupt(fuse_req_t req, void* data) {
  TtyDevice* d = static_cast<TtyDevice*>(data);
  std::lock_guard lock(d->mu_);
  for (auto it = d->reads_.begin(); it != d->reads_.end(); ++it) {
    if (it->req == req) {
      d->reads_.erase(it);
      ++d->interrupts_;
      fuse_reply_err(req, EINTR);
      return;
    }
  }
}

void TtyDevice::op_read(fuse_req_t req, fuse_ino_t, size_t size, off_t, fuse_file_info* fi) {
  TtyDevice* d = self(req);
  // Registered before our lock is taken: libfuse may call it at once, under
  // its own lock, and the callback takes ours.
  fuse_req_interrupt_func(req, on_interrupt, d);
  std::lock_guard lock(d->mu_);
  if (fuse_req_interrupted(req)) {
    ++d->interrupts_;
    fuse_reply_err(req, EINTR);
    return;
  }
  if (d->dead(fi->fh)) {
    if (d->dead_eof_)
      fuse_reply_buf(req, nullptr, 0);
    else
      fuse_reply_err(req, ENODEV);
    return;
  }
  d->reads_.push_back({req, size, fi->fh});
  d->pump();
}

void TtyDevice::op_write(fuse_req_t req, fuse_ino_t, const char* buf, size_t size, off_t, fuse_file_info* fi) {
  TtyDevice* d = self(req);
  int err = 0;
  {
    std::lock_guard lock(d->mu_);
    if (d->dead(fi->fh))
      err = ENODEV;
    else if (d->write_errno_ != 0)
      err = d->write_errno_;
    else
      ++d->writes_;
  }
  std::string_view data(buf, size);
  if (d->recorder_) d->recorder_->bytes("rx", data);
  if (err != 0) {
    if (d->recorder_) d->recorder_->event("write refused " + std::string(strerrorname_np(err)));
    fuse_reply_err(req, err);
    return;
  }
  // The answer is queued before the write returns: a client that reads
  // right after its write finds it, and an unplug that follows the write
  // cannot be overtaken by it.
  d->on_write_(data);
  fuse_reply_write(req, size);
}

void TtyDevice::op_ioctl(fuse_req_t req, fuse_ino_t, unsigned int cmd, void*, fuse_file_info* fi, unsigned,
                         const void*, size_t, size_t out_bufsz) {
  TtyDevice* d = self(req);
  uint8_t id;
  bool is_dead, tty_ok;
  {
    std::lock_guard lock(d->mu_);
    ++d->ioctls_;
    id = d->client_id_;
    is_dead = d->dead(fi->fh);
    tty_ok = d->tty_ok_;
  }
  if (d->recorder_) d->recorder_->event("ioctl " + hex_word(cmd));
  if (is_dead) {
    fuse_reply_err(req, ENODEV);
  } else if (cmd == kIoctlClientId) {
    if (out_bufsz < 1)
      fuse_reply_err(req, EINVAL);
    else
      fuse_reply_ioctl(req, 0, &id, 1);
  } else if (is_terminal_ioctl(cmd) && tty_ok) {
    fuse_reply_ioctl(req, 0, nullptr, 0);
  } else {
    fuse_reply_err(req, ENOTTY);
  }
}

void TtyDevice::op_poll(fuse_req_t req, fuse_ino_t, fuse_file_info* fi, fuse_pollhandle* ph) {
  TtyDevice* d = self(req);
  std::lock_guard lock(d->mu_);
  unsigned revents = 0;
  if (d->dead(fi->fh)) {
    revents = POLLIN | POLLERR | POLLHUP;
  } else {
    revents = POLLOUT;
    if (!d->out_.empty() && !d->hold_) revents |= POLLIN;
  }
  if (ph != nullptr) {
    if (d->poll_handle_) fuse_pollhandle_destroy(d->poll_handle_);
    d->poll_handle_ = ph;
    if (revents & POLLIN) d->notify_poll();
  }
  fuse_reply_poll(req, revents);
}

void TtyDevice::notify_poll() {
  if (poll_handle_ == nullptr) return;
  fuse_lowlevel_notify_poll(poll_handle_);
  fuse_pollhandle_destroy(poll_handle_);
  poll_handle_ = nullptr;
}

void TtyDevice::pump() {
  while (!hold_ && !reads_.empty() && !out_.empty()) {
    PendingRead r = reads_.front();
    reads_.pop_front();
    std::string data;
    if (out_.front().size() > r.size) {
      // A block larger than the read: the rest comes with the next read.
      data = out_.front().substr(0, r.size);
      out_.front().erase(0, r.size);
    } else {
      data = std::move(out_.front());
      out_.pop_front();
      while (coalesce_ && !out_.empty() && data.size() + out_.front().size() <= r.size) {
        data += out_.front();
        out_.pop_front();
      }
    }
    ++reads_done_;
    if (recorder_) recorder_->bytes("tx", data);
    fuse_reply_buf(r.req, data.data(), data.size());
  }
}

void TtyDevice::push(std::vector<std::string> blocks) {
  std::lock_guard lock(mu_);
  for (auto& b : blocks)
    if (!b.empty()) out_.push_back(std::move(b));
  pump();
  if (!out_.empty() && !hold_) notify_poll();
}

void TtyDevice::kill_handles(bool eof) {
  dead_below_ = gen_ + 1;
  ++gen_;
  dead_eof_ = eof;
  out_.clear();
  while (!reads_.empty()) {
    PendingRead r = reads_.front();
    reads_.pop_front();
    if (eof)
      fuse_reply_buf(r.req, nullptr, 0);
    else
      fuse_reply_err(r.req, ENODEV);
  }
  notify_poll();
}

void TtyDevice::unplug(bool eof) {
  {
    std::lock_guard lock(mu_);
    kill_handles(eof);
  }
  if (recorder_) recorder_->event(eof ? "unplug eof" : "unplug enodev");
  on_unplug_();
}

void TtyDevice::remove(int open_errno) {
  {
    std::lock_guard lock(mu_);
    kill_handles(false);
    open_errno_ = open_errno;
  }
  if (recorder_) recorder_->event("remove");
  on_unplug_();
}

void TtyDevice::replug() {
  {
    std::lock_guard lock(mu_);
    open_errno_ = 0;
  }
  if (recorder_) recorder_->event("replug");
}

bool TtyDevice::set(const std::string& key, const std::string& value) {
  std::lock_guard lock(mu_);
  if (key == "client-id") {
    client_id_ = static_cast<uint8_t>(need_uint(key, value, 255));
  } else if (key == "tty") {
    if (value == "ok") tty_ok_ = true;
    else if (value == "enotty") tty_ok_ = false;
    else throw CommandError("tty: expected ok or enotty");
  } else if (key == "coalesce") {
    coalesce_ = need_onoff(key, value);
  } else if (key == "hold") {
    hold_ = need_onoff(key, value);
    pump();
    if (!hold_ && !out_.empty()) notify_poll();
  } else if (key == "write-error") {
    write_errno_ = value == "off" ? 0 : static_cast<int>(need_uint(key, value, 4095));
  } else {
    return false;
  }
  return true;
}

std::string TtyDevice::describe() {
  std::lock_guard lock(mu_);
  size_t queued = 0;
  for (const auto& b : out_) queued += b.size();
  return "opens=" + std::to_string(opens_) + " releases=" + std::to_string(releases_) +
         " writes=" + std::to_string(writes_) + " reads=" + std::to_string(reads_done_) +
         " waiting-reads=" + std::to_string(reads_.size()) + " queued=" + std::to_string(out_.size()) +
         " queued-bytes=" + std::to_string(queued) + " interrupts=" + std::to_string(interrupts_) +
         " ioctls=" + std::to_string(ioctls_) + " removed=" + (open_errno_ ? "1" : "0") +
         " client-id=" + std::to_string(client_id_);
}

void TtyDevice::reset() {
  std::lock_guard lock(mu_);
  client_id_ = 1;
  tty_ok_ = false;
  coalesce_ = false;
  hold_ = false;
  write_errno_ = 0;
  pump();
}

}  // namespace sim
