// Link-time fakes of the operations the state machine drives: each records
// its calls and answers what the test set.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

struct fake_operations {
  int bring_up_result = 0;
  int connect_result = 0;
  std::vector<std::string> calls;            // in order: "bring_up", "connect", ...
  std::vector<uint32_t> tx_bytes;            // successive get_dev_traffic answers
  size_t tx_index = 0;
  int dev_traffic_result = 0;
  int srv_state_result = 0;
  uint8_t srv_state_status = 2;
  int demand_check_raises = 0;               // demand_traffic_check(0) raises the flag
  std::vector<int> demand_check_args;
  bool post_during_srv_state = false;       // a tick arriving mid-drain
  bool echo_calls = false;                  // also print calls to stderr (death tests)
};

extern fake_operations fakes;
void reset_fakes();
int count_calls(const std::string& name);
