// Whatever bytes the bus delivers, the handler must neither crash nor read behind them nor lose memory.
//
//     fuzz_handler [CORPUS DIRECTORY...]
//
// The first byte of an input chooses the message type and whether the name of an ACL that is held is put where the
// message has its name; the rest is the message, in a block of exactly its size. The real library, store and platform
// run behind it; there is no producer.
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "es_acl/es_acl.h"
#include "es_acl/es_acl_callback.h"
#include "es_acl/es_acl_cpcx.h"
#include "es_platform/evm.h"

namespace {

char held_name[] = "fuzzed";

uint32_t look(const ace_edit_info* batch, uint32_t n) {
  uint32_t sum = 0;
  for (uint32_t i = 0; i < n; ++i)
    sum += batch[i].ace->seq + (batch[i].old_ace != nullptr ? batch[i].old_ace->seq : 0);
  return sum;
}

// Some refuse.
uint32_t on_update(es_acl_head*, uint32_t, uint32_t n, const ace_edit_info* batch, void*) {
  return look(batch, n) % 16 == 15 ? 5 : 0;
}
uint32_t on_res_check(es_acl_head*, uint32_t n, const ace_edit_info* batch, int32_t, void*) {
  return look(batch, n) % 4 == 3 ? 28 : 0;
}
uint32_t on_resequence(es_acl_head*, uint32_t, uint32_t, uint32_t n, const uint32_t* skipped, void*) {
  uint32_t sum = 0;
  for (uint32_t i = 0; i < n; ++i) sum += skipped[i];
  return sum % 4 == 3 ? 5 : 0;
}

bool start() {
  char directory[] = "/tmp/es-acl-fuzz-XXXXXX";
  if (mkdtemp(directory) == nullptr) return false;
  setenv("ES_PCX_DIR", directory, 1);
  setenv("ES_DIAG_DIR", directory, 1);
  evm* events = nullptr;
  if (evm_create(&events) != 0 || es_acl_clib_init(events) != 0) return false;
  es_acl_register_update_callback(on_update, nullptr);
  es_acl_register_res_check_callback(on_res_check, nullptr);
  es_acl_register_resequence_callback(on_resequence, nullptr);
  void* name = held_name;
  void* acl = nullptr;
  uint32_t result = 0;
  const es_acl_handle_list names = {1, &name};
  es_acl_handle_list acls = {1, &acl};
  return es_acl_get_acl(&names, &acls, &result) == 0;
}

uint32_t message_type(uint8_t choice) {
  constexpr uint32_t kTypes[] = {PCX_CMD_WRITE, PCX_CMD_WRITE, PCX_CMD_PROD_SYNC_REQ, PCX_CMD_PROD_REQ};
  return kTypes[choice % 4];
}

// In every record of a batch, or in the header of a question.
void put_name(uint8_t* message, size_t size, uint8_t choice) {
  const bool question = (choice & 8) != 0;
  const size_t stride = question ? size + 1 : sizeof(es_acl_pcx_acl_ace);
  for (size_t at = question ? offsetof(es_acl_pcx_res_query_req, acl_name) : 8; at + sizeof held_name <= size;
       at += stride)
    std::memcpy(message + at, held_name, sizeof held_name);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool started = start();
  if (!started) std::abort();
  if (size == 0) return 0;
  const uint8_t choice = data[0];
  const size_t length = size - 1;
  auto* const message = static_cast<uint8_t*>(std::malloc(std::max<size_t>(length, 1)));
  std::memcpy(message, data + 1, length);
  if ((choice & 4) != 0) put_name(message, length, choice);
  es_acl_set_modify_mode(choice >> 4 & 1);
  void* response = nullptr;
  uint32_t response_length = 0;
  es_acl_cpcx_handler(0, message_type(choice), message, static_cast<uint32_t>(length), &response,
                      &response_length);
  if ((response == nullptr) != (response_length == 0)) std::abort();
  std::free(response);
  std::free(message);
  return 0;
}
