// A producer of one ACL, "victim", that answers some reads and then does what it was told to:
//
//   e2e_faulty_producer ENTRIES GOOD-READS FAULT --ready-file FILE
//
// FAULT is kill or stop (itself, by signal, before it answers), busy (it says so), odd (half a record too
// few), again (the first batch once more), none, or shrink or grow (its first GOOD-READS bulk reads have an entry fewer
// or more than was counted). Entries are numbered 1, 2, ... Single counts are not asked for.
#include <endian.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "es_acl/es_acl_wire.h"
#include "es_platform/pcx_producer.h"

namespace {

struct Faulty {
  uint32_t entries;
  int good_reads;
  std::string fault;
};

// One for each time that the ACL is named. Returns the answer's length.
uint32_t put_counts(uint32_t names, uint32_t entries, void* answer) {
  acl_pcx_query_resp record = {ES_ACL_PCX_VERSION, 0, entries, 0};
  es_acl_wire_query_resp_order(&record);
  std::fill_n(static_cast<acl_pcx_query_resp*>(answer), names, record);
  return names * static_cast<uint32_t>(sizeof record);
}

// Returns the answer's length.
uint32_t put_entries(uint32_t start_seq, uint32_t count, void* answer) {
  auto* records = static_cast<es_acl_pcx_acl_ace*>(answer);
  for (uint32_t i = 0; i < count; ++i) {
    records[i] = {};
    records[i].ver = ES_ACL_PCX_VERSION;
    records[i].ace.seq = start_seq + 1 + i;
    records[i].ace.grant = ES_ACL_PERMIT;
    es_acl_wire_acl_ace_order(&records[i]);
  }
  return count * static_cast<uint32_t>(sizeof *records);
}

uint32_t read_in_bulk(Faulty* self, void* answer, uint32_t room, uint32_t* length) {
  uint32_t entries = self->entries;
  if (self->good_reads-- > 0) entries += self->fault == "grow" ? 1u : self->fault == "shrink" ? -1u : 0u;
  if (entries * sizeof(es_acl_pcx_acl_ace) > room) return EMSGSIZE;
  *length = put_entries(0, entries, answer);
  return 0;
}

uint32_t on_read(void* user, const pcx_peer*, void* request, uint32_t, void* answer, uint32_t room,
                 uint32_t* length) {
  auto* self = static_cast<Faulty*>(user);
  auto* read = static_cast<acl_pcx_read_req*>(request);
  const uint32_t command = be32toh(read->cmd);
  if (command == ACL_PCX_QUERY_ACE_COUNT_BULK) {
    *length =
        put_counts(be32toh(static_cast<acl_pcx_bulk_req*>(request)->num_entries), self->entries, answer);
    return 0;
  }
  if (command == ACL_PCX_READ_ACES_BULK) return read_in_bulk(self, answer, room, length);
  es_acl_wire_read_req_order(read);
  const std::string fault = self->good_reads-- > 0 ? "none" : self->fault;
  if (fault == "kill") raise(SIGKILL);
  if (fault == "stop") raise(SIGSTOP);
  if (fault == "busy") return EAGAIN;
  if (fault == "again") read->start_seq = 0;
  const uint32_t count = std::min(read->max_entries, self->entries - read->start_seq);
  *length = put_entries(read->start_seq, count, answer);
  if (fault == "odd") *length -= sizeof(es_acl_pcx_acl_ace) / 2;
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) return 2;
  Faulty self = {static_cast<uint32_t>(std::atoi(argv[1])), std::atoi(argv[2]), argv[3]};
  const pcx_producer_ops operations = {on_read, nullptr, nullptr, nullptr};
  pcx_producer* producer = nullptr;
  if (pcx_producer_open(ES_ACL_DSV_CLASS_NAME, &operations, &self, nullptr, &producer) != 0 ||
      pcx_producer_publish(producer, "victim") != 0) {
    std::fprintf(stderr, "%s\n", pcx_producer_error());
    return 1;
  }
  std::fclose(std::fopen(argv[5], "w"));
  for (;;) pause();
}
