// Pushes, notifications, gets and releases at once, over the real platform and the real store: what ThreadSanitizer and
// AddressSanitizer are to see nothing in.
//
// No producer is needed: a thread of the test hands the messages to the library as the bus's delivery thread does. The
// second that a notification waits is cut short.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "es_acl/es_acl.h"
#include "es_acl/es_acl_callback.h"
#include "es_acl/es_acl_cpcx.h"
#include "es_acl/es_acl_store.h"
#include "es_acl/es_acl_wire.h"
#include "es_platform/evm.h"
#include "es_platform/mtimer.h"
#include "es_platform/pcx.h"

// The library's timers take their second from here.
extern "C" uint64_t timer_one_second() { return 100000; }

namespace {

constexpr uint32_t kAcls = 3;  // each has a client thread of its own
constexpr auto kDuration = std::chrono::milliseconds(1500);

struct Acl {
  char name[8] = {};
  std::atomic<bool> gone = true;              // its last release has returned
  std::atomic<es_acl_head*> given = nullptr;  // to whichever callback comes first, to release
  std::atomic<bool> released = false;         // a callback has done so
};
std::array<Acl, kAcls> acls;
std::atomic<uint32_t> told = 0, notified = 0, released_inside = 0, late = 0;

void release(es_acl_head* head) {
  void* entry = head;
  const es_acl_handle_list list = {1, &entry};
  es_acl_release(&list);
}

size_t length_of(es_acl_head* head) {
  size_t length = 0;
  es_acl_ace_node* node = es_get_first_ace(head);
  for (; es_get_ace_data(head, node) != nullptr; node = es_get_next_ace(head, node)) ++length;
  return length;
}

// What every callback does: looks at the ACL, and releases it when it was given to be released.
void visit(Acl& acl, es_acl_head* head) {
  if (acl.gone) ++late;
  length_of(head);
  es_acl_head* expected = head;
  if (!acl.given.compare_exchange_strong(expected, nullptr)) return;
  release(head);
  ++released_inside;
  acl.released = true;
}

uint32_t on_update(es_acl_head* head, uint32_t, uint32_t n, const ace_edit_info* batch, void*) {
  const uint32_t index = static_cast<uint32_t>(es_acl_get_acl_name(head)[0] - 'a');
  for (uint32_t i = 0; i < n; ++i)
    if (batch[i].ace == nullptr || batch[i].seq == 0) ++late;
  ++told;
  visit(acls.at(index), head);
  return 0;
}
uint32_t on_update_too(es_acl_head*, uint32_t, uint32_t, const ace_edit_info*, void*) { return 0; }
uint32_t on_reseq(es_acl_head* head, uint32_t, uint32_t, uint32_t, const uint32_t*, void*) {
  visit(acls.at(static_cast<uint32_t>(es_acl_get_acl_name(head)[0] - 'a')), head);
  return 0;
}
uint32_t on_usage() { return 0; }
void on_change(es_acl_head* head, uint32_t index) {
  ++notified;
  visit(acls.at(index), head);
}
void on_change_too(es_acl_head*, uint32_t) {}

// --- The delivery thread ---

void deliver(uint32_t type, void* bytes, size_t size) {
  void* response = nullptr;
  uint32_t length = 0;
  es_acl_cpcx_handler(0, type, bytes, static_cast<uint32_t>(size), &response, &length);
  std::free(response);
}

void push_batch(uint32_t command, const char* name, std::mt19937& random) {
  std::vector<es_acl_pcx_acl_ace> records(1 + random() % 20);
  uint32_t seq = 0;
  for (es_acl_pcx_acl_ace& record : records) {
    record.cmd = es_acl_wire_32(command);
    record.ver = es_acl_wire_32(ES_ACL_PCX_VERSION);
    es_acl_wire_set_name(record.acl_name, name);
    record.ace.seq = es_acl_wire_32(seq += 1 + random() % 20);
    record.ace.grant = random() % 2;
  }
  deliver(PCX_CMD_WRITE, records.data(), records.size() * sizeof records[0]);
}

void push_resequence(const char* name) {
  acl_pcx_reseq record = {};
  record.cmd = es_acl_wire_32(ACL_PCX_RESEQ);
  record.ver = es_acl_wire_32(ES_ACL_PCX_VERSION);
  es_acl_wire_set_name(record.acl_name, name);
  record.start_seq = es_acl_wire_32(5);
  record.step = es_acl_wire_32(3);
  deliver(PCX_CMD_WRITE, &record, sizeof record);
}

void ask_for_usage(const char* name) {
  acl_pcx_cons_req record = {};
  record.cmd = es_acl_wire_32(ACL_PCX_QUERY_CONS);
  record.ver = es_acl_wire_32(ES_ACL_PCX_VERSION);
  es_acl_wire_set_name(record.acl_name, name);
  deliver(PCX_CMD_PROD_SYNC_REQ, &record, sizeof record);
}

void push_anything(std::mt19937& random) {
  const char* const name = acls[random() % kAcls].name;
  const uint32_t what = random() % 10;
  if (what == 0) return push_resequence(name);
  if (what == 1) return ask_for_usage(name);
  push_batch(what < 4 ? ACL_PCX_REMOVE_ACE : ACL_PCX_ADD_ACE, name, random);
}

// --- The client threads ---

es_acl_head* get(const char* name) {
  void* entry = const_cast<char*>(name);
  void* handle = nullptr;
  uint32_t result = 0;
  const es_acl_handle_list names = {1, &entry};
  es_acl_handle_list handles = {1, &handle};
  EXPECT_EQ(es_acl_get_acl(&names, &handles, &result), 0U);
  return static_cast<es_acl_head*>(handle);
}

// Leaves the release to a callback when one comes in time.
void give_back(Acl& acl, es_acl_head* head, std::mt19937& random) {
  if (random() % 2 == 0) {
    acl.given = head;
    for (int i = 0; i < 200 && !acl.released; ++i) std::this_thread::yield();
    if (acl.given.exchange(nullptr) == nullptr) {
      while (!acl.released) std::this_thread::yield();
      acl.released = false;
      return;
    }
  }
  release(head);
  acl.gone = true;
}

void hold_for_a_while(uint32_t index, std::mt19937& random) {
  Acl& acl = acls[index];
  acl.gone = false;
  es_acl_head* const head = get(acl.name);
  ASSERT_NE(head, nullptr);
  EXPECT_EQ(es_acl_register_callback(head, on_change, index), 0U);
  EXPECT_EQ(es_acl_register_callback(head, on_change_too, 1), 0U);
  EXPECT_EQ(es_acl_register_update_callback(on_update_too, &acl), 0U);
  es_acl_set_modify_mode(random() % 2);
  for (uint32_t i = random() % 30; i > 0; --i) {
    length_of(head);
    es_acl_search_item(head, random() % 200);
  }
  es_acl_unregister_callback(head, on_change_too, 1);
  es_acl_unregister_update_callback(on_update_too, &acl);
  give_back(acl, head, random);
}

TEST(PushStress, CallbacksFillsAndReleases) {
  char directory[] = "/tmp/es-acl-stress-XXXXXX";
  ASSERT_NE(mkdtemp(directory), nullptr);
  setenv("ES_PCX_DIR", directory, 1);
  setenv("ES_DIAG_DIR", directory, 1);
  for (uint32_t i = 0; i < kAcls; ++i) acls[i].name[0] = static_cast<char>('a' + i);
  evm* events = nullptr;
  ASSERT_EQ(evm_create(&events), 0U);
  ASSERT_EQ(es_acl_clib_init(events), 0U);
  es_acl_register_update_callback(on_update, nullptr);
  es_acl_register_resequence_callback(on_reseq, nullptr);
  es_acl_register_check_usage_callback(on_usage);

  std::thread event_manager([events] { evm_run(events); });
  const auto end = std::chrono::steady_clock::now() + kDuration;
  const auto until_the_end = [end](uint32_t seed, auto step) {
    return std::thread([=] {
      for (std::mt19937 random(seed); std::chrono::steady_clock::now() < end;) step(random);
    });
  };
  std::vector<std::thread> threads;
  threads.push_back(until_the_end(100, push_anything));
  for (uint32_t i = 0; i < kAcls; ++i)
    threads.push_back(until_the_end(i, [i](std::mt19937& random) { hold_for_a_while(i, random); }));
  for (std::thread& thread : threads) thread.join();
  evm_stop(events);
  event_manager.join();

  EXPECT_EQ(late, 0U) << "callbacks of released ACLs, or of nothing";
  for (const Acl& acl : acls) EXPECT_EQ(es_acl_lookup(acl.name), nullptr) << acl.name;
  EXPECT_GT(told, 0U);
  EXPECT_GT(notified, 0U);
  EXPECT_GT(released_inside, 0U);
  std::filesystem::remove_all(directory);
}

}  // namespace
