// A producer of one ACL, "victim", that answers some requests for entries and then does what it was told to:
//
//   faulty_producer ENTRIES GOOD-READS FAULT --ready-file FILE
//
// FAULT is kill or stop (itself, by signal, before it answers), busy (it says so), odd (half a record too
// many), again (the first batch once more) or none.
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

uint32_t answer_count(const Faulty& self, void* answer, uint32_t* length) {
  auto* response = static_cast<acl_pcx_query_resp*>(answer);
  *response = {ES_ACL_PCX_VERSION, 0, self.entries, 0};
  es_acl_wire_query_resp_order(response);
  *length = sizeof *response;
  return 0;
}

void make_record(es_acl_pcx_acl_ace* record, uint32_t seq) {
  *record = {};
  record->ver = ES_ACL_PCX_VERSION;
  record->ace.seq = seq;
  record->ace.grant = ES_ACL_PERMIT;
  es_acl_wire_acl_ace_order(record);
}

// Entries are numbered 1, 2, ...
uint32_t answer_read(const Faulty& self, acl_pcx_read_req request, void* answer, uint32_t* length) {
  const uint32_t count = std::min(request.max_entries, self.entries - request.start_seq);
  for (uint32_t i = 0; i < count; ++i)
    make_record(static_cast<es_acl_pcx_acl_ace*>(answer) + i, request.start_seq + 1 + i);
  *length = count * static_cast<uint32_t>(sizeof(es_acl_pcx_acl_ace));
  return 0;
}

uint32_t misbehave(const Faulty& self, acl_pcx_read_req request, void* answer, uint32_t* length) {
  if (self.fault == "kill") raise(SIGKILL);
  if (self.fault == "stop") raise(SIGSTOP);
  if (self.fault == "busy") return EAGAIN;
  if (self.fault == "again") request.start_seq = 0;
  const uint32_t status = answer_read(self, request, answer, length);
  if (self.fault == "odd") *length -= sizeof(es_acl_pcx_acl_ace) / 2;
  return status;
}

uint32_t on_read(void* user, const pcx_peer*, void* request, uint32_t, void* answer, uint32_t,
                 uint32_t* length) {
  auto* self = static_cast<Faulty*>(user);
  auto* read = static_cast<acl_pcx_read_req*>(request);
  if (es_acl_wire_32(read->cmd) == ACL_PCX_QUERY_ACE_COUNT) return answer_count(*self, answer, length);
  es_acl_wire_read_req_order(read);
  return self->good_reads-- > 0 ? answer_read(*self, *read, answer, length)
                                : misbehave(*self, *read, answer, length);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) return 2;
  Faulty self = {static_cast<uint32_t>(std::atoi(argv[1])), std::atoi(argv[2]), argv[3]};
  const pcx_producer_ops operations = {on_read, nullptr};
  pcx_producer* producer = nullptr;
  if (pcx_producer_open(ES_ACL_DSV_CLASS_NAME, &operations, &self, nullptr, &producer) != 0 ||
      pcx_producer_publish(producer, "victim") != 0) {
    std::fprintf(stderr, "%s\n", pcx_producer_error());
    return 1;
  }
  std::fclose(std::fopen(argv[5], "w"));
  for (;;) pause();
}
