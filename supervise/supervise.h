// SPDX-License-Identifier: ISC
// wdsd-supervise runs wdsd under an init system that wants its services in
// the foreground (procd, systemd, runit, inittab): it becomes the child
// subreaper, starts the daemon, follows it as it detaches and stays until it
// ends; passes on the init system's signals; keeps a second instance out;
// and takes the daemon's standard output line by line to syslog or to a
// size-bounded file. Like the daemon it uses fixed buffers and no heap once
// running.
#pragma once
#include <sys/types.h>
#include <time.h>

#include <cstddef>
#include <cstdint>

// ---- Lines of the daemon's standard output (lines.cpp) ----------------------

// The daemon's own standard output buffer: longer text reaches the pipe in
// pieces of this size anyway.
inline constexpr size_t kLineMax = 1024;
// A line without its newline yet goes out after this long, so that every
// line is recorded within a second of reaching the pipe.
inline constexpr int kPartialLineMs = 500;

struct line_buffer {
  char text[kLineMax + 1];
  size_t len;
  int64_t first_ms;  // when its first byte came
};
using line_emit = void (*)(void* ctx, const char* line);

void line_reset(line_buffer* lb);
// Splits the bytes into lines and hands each whole one to `emit`, a text of
// kLineMax bytes without a newline as one line too. Carriage returns at
// either end of a line are dropped, and so are lines left empty.
void line_feed(line_buffer* lb, const char* data, size_t n, int64_t now_ms, line_emit emit, void* ctx);
// Hands on the partial line once it has waited kPartialLineMs, or at once
// with `force` (the pipe has ended).
void line_flush(line_buffer* lb, int64_t now_ms, bool force, line_emit emit, void* ctx);
// Milliseconds until the partial line is due, -1 when there is none.
int line_due_in(const line_buffer* lb, int64_t now_ms);

// ---- Where the lines go (sink.cpp) ------------------------------------------

inline constexpr char kSyslogSocket[] = "/dev/log";
inline constexpr int kSyslogDaemonInfo = (3 << 3) | 6;  // facility daemon, level info
inline constexpr size_t kSinkPathMax = 256;

struct log_sink {
  int fd;                      // -1 while not open
  char path[kSinkPathMax];     // the syslog socket, or the file
  char old_path[kSinkPathMax + 2];  // the file's previous part, path + ".1"
  bool is_file;
  bool stalled;                // syslog: the last record found no room in time
  off_t size, max_size;        // the file's
};

// Syslog through its datagram socket at `socket_path`; one that is not there
// yet is looked for again at each record.
void sink_syslog(log_sink* s, const char* socket_path);
// A file of at most `max_size` bytes: a record that would pass it moves the
// file to path.1 (replacing that) and starts it afresh. A symbolic link at
// the path is refused. 0, or -1 with errno.
int sink_file(log_sink* s, const char* path, off_t max_size);
// One record, stamped with local time: "<30>Mmm dd hh:mm:ss IDENT[PID]: TEXT"
// as a syslog datagram, or "Mmm dd hh:mm:ss IDENT[PID]: TEXT" and a newline
// in the file. 0, or -1 when it could not be delivered.
int sink_write(log_sink* s, time_t when, const char* ident, pid_t pid, const char* text);

// ---- Processes, through /proc (proc.cpp) -------------------------------------

struct proc_info {
  pid_t ppid;
  char state;            // 'Z' for a zombie
  uint64_t start_ticks;  // start time in clock ticks since boot
  char comm[16];
};
// 0, or -1 when the process is not there.
int proc_read(pid_t pid, proc_info* out);
// Whether the process has a handler installed for `sig`.
bool proc_catches(pid_t pid, int sig);
// The first process for which `match` is true, or 0; every process is looked
// at, in no particular order.
using proc_match = bool (*)(void* ctx, pid_t pid, const proc_info& p);
pid_t proc_find(proc_match match, void* ctx);

// ---- One instance (instance.cpp) ---------------------------------------------

inline constexpr char kLockPath[] = "/var/run/wdsd.lock";
// Takes the lock at `path` into *fd (closed on exec, which the daemon's start
// undoes: it holds the lock as long as it lives, also after its supervisor
// was killed). 0, 1 when another holds it, -1 with errno.
int instance_lock(const char* path, int* fd);
// A running process named `name` other than this one: its pid, or 0.
pid_t instance_running(const char* name);

// ---- The daemon as a child (child.cpp) ---------------------------------------

// Signals passed on to the daemon; 38 asks it to start over.
inline constexpr int kReinitSignal = 38;
// The daemon detaches first thing and starts nothing of its own in its first
// 3 seconds (bring-up opens with a 3-second pause). A process ending with
// status 0 hands the daemon over to a child it left behind only when that
// child was started within this long of the launch: later ones are the
// daemon's command runners, which this subreaper also inherits.
inline constexpr int kDetachWindowMs = 2500;

struct supervised {
  pid_t pid;               // the launcher, then the process it detached
  uint64_t launch_ticks;   // when the launcher started
  bool ended;
  int status;              // wait status of the daemon once ended
  unsigned pending;        // signals to pass on once the daemon handles them, a bit each
};

// Starts `path` with standard input from /dev/null, standard output and
// error to `out_fd`, and the lock descriptor kept. 0, or -1 with errno.
int child_start(supervised* sv, const char* path, int out_fd, int lock_fd);
// Reaps every child that has ended, follows the daemon as it detaches, and
// marks it ended when it is the daemon that ended.
void child_reap(supervised* sv);
// Passes a signal on once the daemon handles it; before then (its first
// seconds) it is held, except 38, which is dropped: the bring-up under way
// is what it would ask for. Returns whether it went out now.
bool child_signal(supervised* sv, int sig);
// Sends the held signals the daemon now handles.
void child_pass_pending(supervised* sv);
// The supervisor's exit status for the daemon's end: its own, or 128 plus
// the signal that killed it.
int child_exit_status(const supervised* sv);
