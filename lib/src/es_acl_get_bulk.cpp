// Getting many ACLs in one call: counted, registered and read together.
//
// Runs on the client's thread and blocks for the exchanges with the producer. The names are taken in three steps: those
// that this process holds already are shared; of the others each is selected once, however often it was asked for; the
// selected ones get a head each, are registered and read, and then every slot that asked for one gets its handle.
//
// The selected names stand at the front of arrays that all have the same order. A name whose head cannot be created goes
// behind those that have one: it is neither registered nor read, and its slots receive 12.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "es_acl/es_acl.h"
#include "es_acl/es_acl_cpcx.h"
#include "es_acl/es_acl_store.h"
#include "es_acl_buffer.h"
#include "es_acl_cpcx_private.h"
#include "es_acl_diag.h"
#include "es_acl_gate.h"
#include "es_acl_get_private.h"
#include "es_acl_retry.h"
#include "es_acl_sync_private.h"
#include "es_db_private.h"
#include "es_platform/dsv.h"
#include "es_platform/pcx.h"

namespace es_acl {
namespace {

constexpr char kBulk[] = "es_acl_getlist_acl_bulk";
constexpr uint64_t kCountGetDefinition = 70;
// Names are told apart by as many characters.
constexpr size_t kComparedLength = ES_ACL_NAME_FIELD_SIZE;

// The slots that asked for one selected name: the first, and from there on next_slot_ leads through them.
struct Slots {
  uint32_t first;
  uint32_t last;
};

class BulkGet {
 public:
  BulkGet(const es_acl_handle_list& wanted, es_acl_handle_list* handles, uint32_t* results)
      : wanted_(wanted), handles_(*handles), results_(results), count_(wanted.count) {}

  uint32_t run();

 private:
  template <typename T>
  bool allocate(Buffer<T>* list, uint32_t count, const char* format, size_t size_shown = 0);
  bool allocate_for_all();
  bool allocate_for_selected();
  uint32_t count_aces();
  uint32_t select();
  void select_slot(uint32_t i);
  void create_heads();
  void swap_selected(uint32_t a, uint32_t b);
  uint32_t fetch();
  uint32_t register_names();
  uint32_t register_on_bus();
  uint32_t register_batches(uint32_t limit);
  uint32_t take_over_registrations();
  uint32_t read();
  uint32_t end_fills(uint64_t generation);
  void free_heads();
  void distribute();
  void hand_out(uint32_t k);

  // An empty one for a null.
  const char* name(uint32_t i) const {
    const auto* const text = static_cast<const char*>(wanted_.entries[i]);
    return text != nullptr ? text : "";
  }

  const es_acl_handle_list& wanted_;
  es_acl_handle_list& handles_;
  uint32_t* const results_;
  const uint32_t count_;
  void* address_ = nullptr;  // where the producer was found
  uint32_t failed_registrations_ = 0;

  // Of all names; the selected ones are moved to the front.
  Buffer<const char*> aclnames_getp_;
  Buffer<NameField> acl_names_;
  Buffer<uint32_t> num_aces_array_;
  Buffer<uint32_t> num_rem_aces_array_;
  Buffer<Slots> slots_;
  Buffer<uint32_t> next_slot_;  // for each slot the next one with its name; the last leads to itself
  uint32_t selected_ = 0;
  std::unordered_map<std::string_view, uint32_t> index_of_selected_;

  // Of the selected names.
  Buffer<es_acl_head*> heads_;
  Buffer<uint32_t> errors_;
  AclFills fills_;
  uint32_t created_ = 0;  // so many have a head, and stand in front
  Buffer<void*> reg_handles_;
  Buffer<uint32_t> reg_codes_;
};

// `format` takes the operation and, where it has a second place, the size.
template <typename T>
bool BulkGet::allocate(Buffer<T>* list, uint32_t count, const char* format, size_t size_shown) {
  *list = zeroed<T>(count);
  if (*list != nullptr) return true;
  DBG_ERR(format, kBulk, static_cast<int>(size_shown));
  return false;
}

bool BulkGet::allocate_for_all() {
  return allocate(&aclnames_getp_, count_, "%s: calloc failed for %d bytes aclnames_getp",
                  count_ * sizeof(char*)) &&
         allocate(&acl_names_, count_, "%s: calloc failed for acl_names") &&
         allocate(&num_aces_array_, count_, "%s: calloc failed for num_aces_array") &&
         allocate(&num_rem_aces_array_, count_, "%s: calloc failed for num_rem_aces_array") &&
         allocate(&slots_, count_, "%s: calloc failed for slots of names") &&
         allocate(&next_slot_, count_, "%s: calloc failed for slots");
}

uint32_t BulkGet::count_aces() {
  for (uint32_t i = 0; i < count_; ++i) es_acl_wire_set_name(acl_names_[i].text, name(i));
  const uint32_t rc = query_acl_count_bulk(acl_names_.get(), num_aces_array_.get(), num_rem_aces_array_.get(),
                                           count_, &address_);
  if (rc == 0) return 0;
  DBG_ERR("%s: es_acl_query_acl_count_bulk failed %s", kBulk, errcode_string(rc));
  trace(kBulk, "count query failed", rc, count_);
  return rc;
}

// Selected names are at most as many as have been looked at: nothing is overwritten that is still to be used.
void BulkGet::select_slot(uint32_t i) {
  const std::string_view text(name(i), strnlen(name(i), kComparedLength));
  const auto [entry, is_new] = index_of_selected_.try_emplace(text, selected_);
  const uint32_t k = entry->second;
  next_slot_[i] = i;
  if (!is_new) {
    next_slot_[slots_[k].last] = i;
    slots_[k].last = i;
    return;
  }
  aclnames_getp_[k] = name(i);
  num_aces_array_[k] = num_aces_array_[i];
  num_rem_aces_array_[k] = num_rem_aces_array_[i];
  acl_names_[k] = acl_names_[i];
  slots_[k] = {i, i};
  ++selected_;
}

uint32_t BulkGet::select() try {
  for (uint32_t i = 0; i < count_; ++i) {
    Outcome held;
    if (share(kBulk, name(i), &held)) {
      handles_.entries[i] = held.head;
      results_[i] = held.status;
      if (held.head != nullptr)
        DBG_DETAIL("%s: ACL: %s(%p) alreadyexists locally", kBulk, name(i), static_cast<void*>(held.head));
    } else if (num_aces_array_[i] == num_rem_aces_array_[i]) {
      DBG_ERR("%s: No non-remark aces in ACL to query", kBulk);
      results_[i] = ES_ACL_E_NO_RULES;
    } else {
      select_slot(i);
    }
  }
  return 0;
} catch (const std::bad_alloc&) {
  DBG_ERR("%s: no memory to tell %u names apart", kBulk, count_);
  return ENOMEM;
}

bool BulkGet::allocate_for_selected() {
  if (!allocate(&heads_, selected_, "%s: calloc failed to allocate %d bytes foracl_array headers",
                selected_ * sizeof(es_acl_head*)) ||
      !allocate(&errors_, selected_, "%s: calloc failed to allocate %d bytes forerror codes",
                selected_ * sizeof(uint32_t)))
    return false;
  if (fills_.reserve(selected_)) return true;
  DBG_ERR("%s: no memory to fill %u ACLs", kBulk, selected_);
  return false;
}

void BulkGet::swap_selected(uint32_t a, uint32_t b) {
  std::swap(aclnames_getp_[a], aclnames_getp_[b]);
  std::swap(acl_names_[a], acl_names_[b]);
  std::swap(num_aces_array_[a], num_aces_array_[b]);
  std::swap(num_rem_aces_array_[a], num_rem_aces_array_[b]);
  std::swap(slots_[a], slots_[b]);
  std::swap(heads_[a], heads_[b]);
  std::swap(errors_[a], errors_[b]);
}

// What is pushed for an ACL is kept from before it has a head until it has been read.
void BulkGet::create_heads() {
  for (uint32_t k = 0; k < selected_; ++k) {
    fills_.begin(aclnames_getp_[k]);
    heads_[k] = create_head(kBulk, aclnames_getp_[k]);
    if (heads_[k] == nullptr) {
      errors_[k] = ENOMEM;
      fills_.give_up_last(apply_kept_message);
      continue;
    }
    if (k != created_) swap_selected(k, created_);
    ++created_;
  }
}

uint32_t BulkGet::register_names() {
  void** handles = nullptr;
  uint32_t* codes = nullptr;
  const uint32_t rc = with_retries(is_transient, [&] {
    return dsv_register_bulk(es_acl_classhandle, aclnames_getp_.get(), created_, &handles, &codes);
  });
  reg_handles_.reset(handles);
  reg_codes_.reset(codes);
  if (rc != 0) {
    DBG_ERR("%s: dsv_register_bulk register failed: %s", kBulk, errcode_string(rc));
    trace(kBulk, "dsv_register_bulk failed", rc, created_);
    return rc;
  }
  for (uint32_t k = 0; k < created_; ++k) {
    if (reg_codes_[k] == 0) continue;
    DBG_ERR("%s: dsv_register_bulk failed for item %d ", kBulk, static_cast<int>(k));
    ++failed_registrations_;
  }
  return 0;
}

uint32_t BulkGet::register_batches(uint32_t limit) {
  for (uint64_t at = 0; at < created_; at += limit) {
    const auto number = static_cast<uint32_t>(std::min<uint64_t>(limit, created_ - at));
    const uint32_t rc = with_retries(is_transient, [&] {
      return pcx_bulk_register(&reg_handles_[at], &reg_codes_[at], number, 0, 0, 0, es_acl_cpcx_handler);
    });
    if (rc == 0) continue;
    DBG_ERR("%s:pcx_bulk_register failed: %s", kBulk, errcode_string(rc));
    return rc;
  }
  return 0;
}

// An ACL whose registration has failed is read like the others, but will get no changes. How many there are.
uint32_t BulkGet::take_over_registrations() {
  uint32_t failed = 0;
  for (uint32_t k = 0; k < created_; ++k) {
    if (reg_codes_[k] == 0) {
      heads_[k]->reg_handle = reg_handles_[k];
      continue;
    }
    DBG_ERR("%s: pcx_bulk_register failed for item %d", kBulk, static_cast<int>(k));
    ++failed;
    if (reg_handles_[k] != nullptr) pcx_unregister(reg_handles_[k]);
    reg_handles_[k] = nullptr;
  }
  return failed;
}

uint32_t BulkGet::register_on_bus() {
  const uint32_t limit = pcx_get_num_bulk_handles(es_acl_classhandle);
  DBG_DETAIL("%s: pcx_get_num_bulk_handles returned: %d", kBulk, static_cast<int>(limit));
  if (limit == 0) {
    DBG_ERR("%s: pcx_get_num_bulk_handles returned NULL", kBulk);
    trace(kBulk, "no bulk registrations", EINVAL);
    return EINVAL;
  }
  if (const uint32_t rc = register_batches(limit); rc != 0) return rc;
  const uint32_t failed = take_over_registrations();
  if (failed != 0 || failed_registrations_ != 0)
    DBG_ERR("%s: DSV/PCX Register failed for %d DSV Registration %d PCX Registration", kBulk,
            static_cast<int>(failed_registrations_), static_cast<int>(failed));
  return 0;
}

uint32_t BulkGet::end_fills(uint64_t generation) {
  const auto of = [&](uint32_t k) { return heads_[k]->reg_handle != nullptr ? generation : 0; };
  uint32_t rc = 0;
  for (uint32_t k = 0; k < created_ && rc == 0; ++k) rc = sync_enter(heads_[k], Form::rules, of(k));
  if (rc == 0) rc = fills_.finish(apply_kept_message);
  if (rc != 0) return rc;
  for (uint32_t k = 0; k < created_; ++k)
    sync_filled(heads_[k], generation, fills_.link_changed(), fills_.link_lost());
  return 0;
}

// Each ACL's list comes whole, in one answer. When the connection has changed meanwhile, what was pushed behind it may be
// missing: the ACLs are out of touch, and catch up.
uint32_t BulkGet::read() {
  uint64_t generation = pcx_generation(es_acl_classhandle);
  uint32_t rc = read_acl_bulk(
      {heads_.get(), acl_names_.get(), num_aces_array_.get(), num_rem_aces_array_.get(), created_}, address_);
  if (pcx_generation(es_acl_classhandle) != generation) generation = 0;
  if (rc == 0) rc = end_fills(generation);
  if (rc != 0) DBG_ERR("%s: PCX read failed: %s", kBulk, errcode_string(rc));
  return rc;
}

uint32_t BulkGet::fetch() {
  uint32_t rc = register_names();
  if (rc == 0) rc = register_on_bus();
  if (rc == 0) rc = read();
  return rc;
}

// With the registrations that have been made, those included that no head has taken over.
void BulkGet::free_heads() {
  for (uint32_t k = 0; k < created_; ++k) {
    DBG_ERR("%s: Freeing acl_head_type for %s(%p)", kBulk, heads_[k]->name, static_cast<void*>(heads_[k]));
    if (reg_handles_ != nullptr && heads_[k]->reg_handle == nullptr) heads_[k]->reg_handle = reg_handles_[k];
    discard_new_head(heads_[k]);
    heads_[k] = nullptr;
  }
}

// Each slot holds a reference; the one that came with the head goes.
void BulkGet::hand_out(uint32_t k) {
  es_acl_head* const head = heads_[k];
  for (uint32_t slot = slots_[k].first;; slot = next_slot_[slot]) {
    handles_.entries[slot] = head;
    results_[slot] = errors_[k];
    if (head != nullptr) {
      add_reference(head);
      DBG_DETAIL("%s: returns handle for ACL: %s (%p)", kBulk, name(slot), static_cast<void*>(head));
    }
    if (next_slot_[slot] == slot) break;
  }
  if (head != nullptr && references(head) > 0) drop_reference(head);
}

void BulkGet::distribute() {
  for (uint32_t k = 0; k < selected_; ++k) hand_out(k);
}

uint32_t BulkGet::run() {
  if (!allocate_for_all()) return ENOMEM;
  uint32_t rc = count_aces();
  if (rc == 0) rc = select();
  if (rc != 0) return rc;
  if (selected_ == 0) {
    DBG_ERR("%s: No new ACL to query from producer.", kBulk);
    return 0;
  }
  if (!allocate_for_selected()) return ENOMEM;
  create_heads();
  if (created_ != 0) rc = fetch();
  if (rc != 0) {
    free_heads();
    return rc;
  }
  distribute();
  return 0;
}

}  // namespace
}  // namespace es_acl

using namespace es_acl;

es_acl_status es_acl_get_definition(const es_acl_handle_list* in_data, es_acl_handle_list* out_data,
                                    uint32_t* ret_data) {
  DBG_INFO("Entering %s", __func__);
  count_main(kCountGetDefinition);
  if (in_data == nullptr || out_data == nullptr || ret_data == nullptr) {
    DBG_ERR("%s: Invalid arguments in_data:%p, out_data: %p,ret_data: %p", __func__,
            static_cast<const void*>(in_data), static_cast<void*>(out_data), static_cast<void*>(ret_data));
    return EINVAL;
  }
  out_data->count = in_data->count;
  std::fill_n(out_data->entries, in_data->count, nullptr);
  std::fill_n(ret_data, in_data->count, 0);
  DBG_INFO("Entering %s: number of handles: %d", __func__, static_cast<int>(in_data->count));
  trace(__func__, "get", in_data->count);
  return BulkGet(*in_data, out_data, ret_data).run();
}
