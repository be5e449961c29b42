// What the tests of pushed messages share: messages built byte by byte, an ACL with ACEs of known content, callbacks
// that write what they are shown into the log, and the delivery of a message as the bus makes it.
#ifndef TESTS_LIB_PUSH_FIXTURE_H_
#define TESTS_LIB_PUSH_FIXTURE_H_

#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "es_acl/es_acl_callback.h"
#include "library_fixture.h"

namespace es_test {

enum : uint32_t { kWrite = 6, kSync = 18 };
enum : uint32_t { kAdd = 0, kRemove = 1, kReseq = 10, kUsage = 13, kQuery = 14, kCancel = 15 };

// What tells ACEs of one number apart here.
struct Ace {
  uint32_t seq;
  uint8_t content = 0;
  uint32_t kind = 0;
  friend bool operator==(const Ace&, const Ace&) = default;
};
using Aces = std::vector<Ace>;

inline void put_name(Bytes& bytes, size_t offset, const std::string& name) {
  std::copy(name.begin(), name.end(), bytes.begin() + static_cast<long>(offset));
}

inline Bytes batch(uint32_t command, const Aces& aces, const std::string& name = "edge") {
  Bytes all;
  for (const Ace& ace : aces) {
    Bytes record = ace_record(ace.seq);
    put_32(record, 0, command);
    put_name(record, 8, name);
    put_32(record, 80, ace.kind);
    record[147] = ace.content;
    all.insert(all.end(), record.begin(), record.end());
  }
  return all;
}

inline Bytes resequencing(uint32_t start, uint32_t step, const Numbers& skips,
                          const std::string& name = "edge") {
  Bytes bytes(88 + 4 * skips.size());
  const uint32_t words[] = {kReseq, 1, start, step, static_cast<uint32_t>(skips.size())};
  const size_t offsets[] = {0, 4, 76, 80, 84};
  for (size_t i = 0; i < 5; ++i) put_32(bytes, offsets[i], words[i]);
  put_name(bytes, 8, name);
  for (size_t i = 0; i < skips.size(); ++i) put_32(bytes, 88 + 4 * i, skips[i]);
  return bytes;
}

struct Key {
  uint16_t origin = 7;
  uint16_t number = 1;
};

// A resource question; its synchronous forms have no candidates, but may say that they have.
inline Bytes question(uint32_t command, Key key, const Aces& candidates = {}, uint32_t res_state = 1,
                      const std::string& name = "edge") {
  Bytes bytes(88);
  const uint32_t words[] = {command, 1, res_state, uint32_t{key.origin} << 16 | key.number,
                            static_cast<uint32_t>(candidates.size())};
  for (size_t i = 0; i < 5; ++i) put_32(bytes, 4 * i, words[i]);
  put_name(bytes, 20, name);
  const Bytes records = batch(kAdd, candidates, name);
  bytes.insert(bytes.end(), records.begin(), records.end());
  return bytes;
}

inline Bytes usage_question(const std::string& name = "edge") {
  Bytes bytes(73);
  put_32(bytes, 0, kUsage);
  put_32(bytes, 4, 1);
  put_name(bytes, 8, name);
  return bytes;
}

// The whole answer to a synchronous request.
inline Bytes response(uint32_t rc, uint32_t in_use, const std::string& process = "test-process",
                      const std::string& node = "test-node", uint32_t pid = static_cast<uint32_t>(getpid())) {
  Bytes bytes(176);
  const uint32_t words[] = {2, rc, pid, in_use};
  for (size_t i = 0; i < 4; ++i) put_32(bytes, 4 * i, words[i]);
  put_name(bytes, 16, process);
  put_name(bytes, 144, node);
  return bytes;
}

inline uint8_t* exact_copy(const Bytes& bytes) {
  const Backstage backstage;
  auto* const copy = static_cast<uint8_t*>(malloc(bytes.size()));
  std::copy(bytes.begin(), bytes.end(), copy);
  return copy;
}

// Hands a message in, in a block of exactly its size, so that AddressSanitizer sees a read behind its end. The answer,
// or nothing.
inline Bytes deliver(uint32_t type, const Bytes& message) {
  auto* const payload = exact_copy(message);
  void* answer = nullptr;
  uint32_t length = 0;
  es_acl_cpcx_handler(7, type, payload, static_cast<uint32_t>(message.size()), &answer, &length);
  const Backstage backstage;
  free(payload);
  EXPECT_EQ(length, answer == nullptr ? 0U : 176U);
  const auto* const bytes = static_cast<uint8_t*>(answer);
  Bytes copy(bytes, bytes + length);
  free(answer);
  return copy;
}
inline void push(const Bytes& message) { EXPECT_EQ(deliver(kWrite, message), Bytes{}); }
inline uint32_t ask(const Bytes& message) {
  const Bytes answer = deliver(kSync, message);
  return answer.size() == 176 ? get_32(answer, 4) : kUntouched;
}

// "add(head:edge, 20=5 old stored20, 30=1 new)": the records under the names that they have in the log, see hold().
inline std::string show_batch(const std::string& what, const es_acl_head* acl, uint32_t n,
                              const ace_edit_info* elements) {
  std::string text = what + "(" + pointer_name(acl);
  for (uint32_t i = 0; i < n; ++i) {
    const ace_edit_info& element = elements[i];
    EXPECT_EQ(element.seq, element.ace->seq);
    text += ", " + show(element.seq) + "=" + show(element.ace->log_option) + " " + show(element.ace);
    if (element.old_ace != nullptr) text += " old " + show(element.old_ace);
    if (element.is_new != 0) text += " new";
  }
  return text + ")";
}

// A callback's context: what it says, and what it then does.
struct Client {
  const char* name = "";
  uint32_t answer = 0;
  std::function<void()> action = [] {};
};

inline uint32_t say(void* context, const std::string& text) {
  const Client& client = *static_cast<Client*>(context);
  record(kCall, client.name + text);
  client.action();
  return client.answer;
}
inline uint32_t on_update(es_acl_head* acl, uint32_t action, uint32_t n, const ace_edit_info* elements,
                          void* context) {
  const Backstage backstage;
  return say(context, show_batch(action == ACL_REMOVE_ACE ? "remove" : "add", acl, n, elements));
}
inline uint32_t on_res_check(es_acl_head* acl, uint32_t n, const ace_edit_info* elements, int32_t cancel,
                             void* context) {
  const Backstage backstage;
  return say(context, show_batch("check" + show(cancel), acl, n, elements));
}
inline uint32_t on_resequence(es_acl_head* acl, uint32_t start, uint32_t step, uint32_t count,
                              const uint32_t* skips, void* context) {
  const Backstage backstage;
  std::string text = describe("reseq", static_cast<const void*>(acl), start, step);
  for (uint32_t i = 0; i < count; ++i) text += " " + show(skips[i]);
  return say(context, text);
}
inline void on_change(es_acl_head*, uint32_t) {}

class PushTest : public LibraryTest {
 protected:
  void SetUp() override {
    initialise();
    // Records show as "copy1", "copy2" in the order of their taking.
    platform().pool_take.always([this](pool*) -> void* {
      if (pool_left_ == 0) return nullptr;
      --pool_left_;
      void* const record = memset(malloc(80), 0xa5, 80);
      name_pointer(record, "copy" + std::to_string(++taken_));
      return record;
    });
    platform().pool_give.always([](pool*, void* record) {
      name_pointer(record, "ptr");
      free(record);
    });
  }

  // An ACL with somebody to notify. Its records show as "stored20".
  es_acl_head* hold(const Aces& aces, const std::string& name = "edge") {
    es_acl_head* const head = make_acl(name);
    head->evm_ctx = ctx();
    EXPECT_EQ(es_acl_register_callback(head, on_change, 0), 0U);
    for (const Ace& ace : aces) {
      es_acl_ace* const stored = make_ace(ace.seq);
      stored->kind = ace.kind;
      stored->log_option = ace.content;
      name_pointer(stored, "stored" + std::to_string(ace.seq));
      es_acl_add_acl_item(head, stored, ace.seq, ES_ACL_ADD_KEEP);
    }
    taken_ = 0;
    clear_log();
    return head;
  }

  static Aces list(es_acl_head* head) {
    Aces aces;
    for (es_acl_ace_node* node = es_get_first_ace(head); es_acl_ace* ace = es_get_ace_data(head, node);
         node = es_get_next_ace(head, node))
      aces.push_back({ace->seq, ace->log_option, ace->kind});
    return aces;
  }
  void leave_in_pool(int records) { pool_left_ = records; }
  static bool armed(es_acl_head* head) { return running_for(head->cb_timer_leaf) != 0; }

 private:
  int taken_ = 0;
  int pool_left_ = -1;  // no end to them
};

}  // namespace es_test

#endif  // TESTS_LIB_PUSH_FIXTURE_H_
