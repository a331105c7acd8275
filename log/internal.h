// SPDX-License-Identifier: ISC
// The log's state, for its tests and benchmarks.
#pragma once

extern int log_fd;     // -1 while closed
extern int log_bytes;  // bytes counted since the file was last emptied
// Closed, nothing counted: the log as the process starts.
void log_reset();
