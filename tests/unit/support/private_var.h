// Test support: a private mount namespace with an empty tmpfs on /var, so
// tests can use the daemon's fixed paths without touching the host's /var.
#pragma once
#include <string>

// Enters a new mount namespace (call while the process is single-threaded,
// i.e. before anything starts threads) and mounts a tmpfs on /var with
// /var/log and /var/wan/<ifname>/ for the given interface names.
// Returns false (with a reason in *why) when that is not possible.
bool enter_private_var(std::string* why);

// Empties /var/wan/<ifname>/ and /var/log/ again between tests.
void reset_private_var(const char* ifname);

std::string read_text_file(const std::string& path);
void write_text_file(const std::string& path, const std::string& text);
bool file_exists(const std::string& path);
