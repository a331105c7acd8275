// SPDX-License-Identifier: ISC
#include "sim/tty_device.h"

#include <errno.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <algorithm>
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

std::string hex_word(unsigned v) {
  char buf[16];
  snprintf(buf, sizeof buf, "0x%08x", v);
  return buf;
}

}  // namespace

TtyDevice::TtyDevice(Recorder* recorder, WriteHandler on_write, Handler on_unplug, Handler on_interrupt)
    : recorder_(recorder),
      on_write_(std::move(on_write)),
      on_unplug_(std::move(on_unplug)),
      on_interrupt_(std::move(on_interrupt)) {}

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
    if (d->removed_) {
      if (d->recorder_) d->recorder_->event("open refused ENODEV");
      fuse_reply_err(req, ENODEV);
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
  {
    std::lock_guard lock(d->mu_);
    auto it = std::find_if(d->reads_.begin(), d->reads_.end(), [&](const PendingRead& r) { return r.req == req; });
    if (it == d->reads_.end()) return;
    d->reads_.erase(it);
    ++d->interrupts_;
    fuse_reply_err(req, EINTR);
  }
  d->interrupted();
}

// Told without the device's lock: the model may push blocks in answer.
void TtyDevice::interrupted() {
  if (on_interrupt_) on_interrupt_();
}

void TtyDevice::op_read(fuse_req_t req, fuse_ino_t, size_t size, off_t, fuse_file_info* fi) {
  TtyDevice* d = self(req);
  // Registered before our lock is taken: libfuse may call it at once, under
  // its own lock, and the callback takes ours.
  fuse_req_interrupt_func(req, on_interrupt, d);
  bool died = false;
  {
    std::lock_guard lock(d->mu_);
    if (fuse_req_interrupted(req)) {
      ++d->interrupts_;
      fuse_reply_err(req, EINTR);
    } else if (d->dead(fi->fh)) {
      fuse_reply_err(req, ENODEV);
      return;
    } else {
      d->reads_.push_back({req, size, fi->fh});
      died = d->pump();
      if (!died) return;
    }
  }
  if (died) {
    if (d->recorder_) d->recorder_->event("gone");
  } else {
    d->interrupted();
  }
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
  }
  std::string_view data(buf, size);
  if (d->recorder_) d->recorder_->bytes("rx", data);
  // The answer is queued before the write returns: a client that reads
  // right after its write finds it, and an unplug that follows the write
  // cannot be overtaken by it.
  err = d->on_write_(data, err);
  if (err != 0) {
    if (d->recorder_) d->recorder_->event("write refused " + std::string(strerrorname_np(err)));
    fuse_reply_err(req, err);
    return;
  }
  {
    std::lock_guard lock(d->mu_);
    ++d->writes_;
  }
  fuse_reply_write(req, size);
}

void TtyDevice::op_ioctl(fuse_req_t req, fuse_ino_t, unsigned int cmd, void*, fuse_file_info* fi, unsigned,
                         const void*, size_t, size_t out_bufsz) {
  TtyDevice* d = self(req);
  bool is_dead;
  {
    std::lock_guard lock(d->mu_);
    ++d->ioctls_;
    is_dead = d->dead(fi->fh);
  }
  if (d->recorder_) d->recorder_->event("ioctl " + hex_word(cmd));
  // Terminal ioctls find no terminal: the daemon is built to live with that.
  if (is_dead) {
    fuse_reply_err(req, ENODEV);
  } else if (cmd == kIoctlClientId && out_bufsz >= 1) {
    const uint8_t id = kClientId;
    fuse_reply_ioctl(req, 0, &id, 1);
  } else {
    fuse_reply_err(req, cmd == kIoctlClientId ? EINVAL : ENOTTY);
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
    if (!d->out_.empty()) revents |= POLLIN;
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

bool TtyDevice::pump() {
  while (!reads_.empty() && !out_.empty()) {
    if (out_.front().gone) {
      out_.pop_front();
      kill_handles();
      return true;
    }
    PendingRead r = reads_.front();
    reads_.pop_front();
    std::string data;
    if (out_.front().bytes.size() > r.size) {
      // A block larger than the read: the rest comes with the next read.
      data = out_.front().bytes.substr(0, r.size);
      out_.front().bytes.erase(0, r.size);
    } else {
      data = std::move(out_.front().bytes);
      out_.pop_front();
    }
    ++reads_done_;
    if (recorder_) recorder_->bytes("tx", data);
    fuse_reply_buf(r.req, data.data(), data.size());
  }
  return false;
}

void TtyDevice::push(std::vector<std::string> blocks) {
  bool died;
  {
    std::lock_guard lock(mu_);
    for (auto& b : blocks)
      if (!b.empty()) out_.push_back({std::move(b), false});
    died = pump();
    if (!out_.empty()) notify_poll();
  }
  if (died && recorder_) recorder_->event("gone");
}

void TtyDevice::push_gone() {
  bool died;
  {
    std::lock_guard lock(mu_);
    out_.push_back({"", true});
    died = pump();
    if (!out_.empty()) notify_poll();
  }
  if (died && recorder_) recorder_->event("gone");
}

void TtyDevice::kill_handles() {
  dead_below_ = gen_ + 1;
  ++gen_;
  out_.clear();
  while (!reads_.empty()) {
    fuse_reply_err(reads_.front().req, ENODEV);
    reads_.pop_front();
  }
  notify_poll();
}

void TtyDevice::unplug() {
  {
    std::lock_guard lock(mu_);
    kill_handles();
  }
  if (recorder_) recorder_->event("unplug");
  on_unplug_();
}

void TtyDevice::remove() {
  {
    std::lock_guard lock(mu_);
    kill_handles();
    removed_ = true;
  }
  if (recorder_) recorder_->event("remove");
  on_unplug_();
}

void TtyDevice::replug() {
  {
    std::lock_guard lock(mu_);
    removed_ = false;
  }
  if (recorder_) recorder_->event("replug");
}

bool TtyDevice::set(const std::string& key, const std::string& value) {
  if (key != "write-error") return false;
  std::lock_guard lock(mu_);
  write_errno_ = value == "off" ? 0 : static_cast<int>(need_uint(key, value, 4095));
  return true;
}

std::string TtyDevice::describe() {
  std::lock_guard lock(mu_);
  size_t queued = 0;
  for (const auto& b : out_) queued += b.bytes.size();
  return "opens=" + std::to_string(opens_) + " releases=" + std::to_string(releases_) +
         " writes=" + std::to_string(writes_) + " reads=" + std::to_string(reads_done_) +
         " waiting-reads=" + std::to_string(reads_.size()) + " queued=" + std::to_string(out_.size()) +
         " queued-bytes=" + std::to_string(queued) + " interrupts=" + std::to_string(interrupts_) +
         " ioctls=" + std::to_string(ioctls_) + " removed=" + (removed_ ? "1" : "0") +
         " client-id=" + std::to_string(kClientId);
}

}  // namespace sim
