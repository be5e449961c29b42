/* A first client: gets one ACL, walks it, gives it back.
 *
 *     cc $(pkg-config --cflags es_acl) first_client.c $(pkg-config --libs es_acl) -o first_client
 *     ./first_client edge-user-in
 *
 * The copy that is walked stays for as long as its handle is held. */
#include <inttypes.h>
#include <stdio.h>

#include "es_acl/es_acl.h"
#include "es_platform/diag.h"
#include "es_platform/evm.h"

static void print_ace(const es_acl_ace* ace) {
  const char* action = ace->grant == ES_ACL_PERMIT ? "permit" : "deny";
  if (ace->kind == ES_ACL_KIND_REMARK) action = "remark";
  printf("%10" PRIu32 " %s\n", ace->seq, action);
}

/* The walk takes no lock; es_get_ace_data() gives null behind the last entry. */
static void print_acl(es_acl_head* acl) {
  printf("%s\n", es_acl_get_acl_name(acl));
  for (es_acl_ace_node* node = es_get_first_ace(acl); node != NULL; node = es_get_next_ace(acl, node)) {
    const es_acl_ace* ace = es_get_ace_data(acl, node);
    if (ace == NULL) break;
    print_ace(ace);
  }
}

static int show(char* name) {
  void* name_entries[] = {name};
  void* acl_entries[] = {NULL};
  uint32_t results[] = {0};
  const es_acl_handle_list names = {1, name_entries};
  es_acl_handle_list acls = {1, acl_entries};

  es_acl_get_acl(&names, &acls, results); /* each name has its own result */
  if (acl_entries[0] == NULL) {
    fprintf(stderr, "%s: %s\n", name, errcode_string(results[0]));
    return 1;
  }
  print_acl(acl_entries[0]);
  es_acl_release(&acls);
  return 0;
}

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: %s ACL\n", argv[0]);
    return 2;
  }
  evm* events = NULL; /* the process's event manager: the library needs it until the process ends */
  es_acl_status status = evm_create(&events);
  if (status == 0) status = es_acl_clib_init(events);
  if (status != 0) {
    fprintf(stderr, "es-acl could not be initialised: %s\n", errcode_string(status));
    return 1;
  }
  return show(argv[1]);
}
