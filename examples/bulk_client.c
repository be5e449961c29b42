/* Gets many ACLs in one call, and prints how many rules each of them has, or why it has none.
 *
 *     cc $(pkg-config --cflags es_acl) bulk_client.c $(pkg-config --libs es_acl) -o bulk_client
 *     ./bulk_client edge-user-in edge-server-only edge-voice
 *
 * The copies have no remarks. They follow the producer's changes like all others. */
#include <errno.h>
#include <inttypes.h>
#include <stdio.h>

#include "es_acl/es_acl.h"
#include "es_platform/diag.h"
#include "es_platform/evm.h"

enum { MOST_ACLS = 100 };

static uint32_t count_rules(es_acl_head* acl) {
  uint32_t rules = 0;
  es_acl_ace_node* node = es_get_first_ace(acl);
  for (; node != NULL && es_get_ace_data(acl, node) != NULL; node = es_get_next_ace(acl, node)) ++rules;
  return rules;
}

/* The call takes the names as they are. */
static int are_names(const es_acl_handle_list* names) {
  for (uint32_t i = 0; i < names->count; ++i) {
    const char* name = names->entries[i];
    if (es_acl_check_acl_name(name) == 0) continue;
    fprintf(stderr, "%s: not the name of an ACL\n", name);
    return 0;
  }
  return 1;
}

/* An ACL that changes between its count and its read has another size than expected, or more than there is room for:
 * the call fails as a whole then, and a later one succeeds. Whatever it returns, the handles that there are count. */
static es_acl_status get(const es_acl_handle_list* names, es_acl_handle_list* acls, uint32_t* results) {
  es_acl_status status = 0;
  for (int tries = 0; tries < 5; ++tries) {
    status = es_acl_get_definition(names, acls, results);
    if (status != EINVAL && status != EMSGSIZE) break;
    es_acl_release(acls);
    acls->count = 0;
  }
  return status;
}

static int show(const es_acl_handle_list* names, es_acl_handle_list* acls, uint32_t* results) {
  if (!are_names(names)) return 1;
  const es_acl_status status = get(names, acls, results);
  if (status != 0) fprintf(stderr, "no ACLs: %s\n", errcode_string(status));
  for (uint32_t i = 0; status == 0 && i < names->count; ++i) {
    const char* name = names->entries[i];
    if (results[i] == 0)
      printf("%s: %" PRIu32 "\n", name, count_rules(acls->entries[i]));
    else
      printf("%s: %s\n", name, errcode_string(results[i])); /* no rules, or unknown to the producer */
  }
  es_acl_release(acls);
  return status != 0;
}

int main(int argc, char** argv) {
  if (argc < 2 || argc > 1 + MOST_ACLS) {
    fprintf(stderr, "usage: %s ACL... (up to %d)\n", argv[0], MOST_ACLS);
    return 2;
  }
  evm* events = NULL;
  es_acl_status status = evm_create(&events);
  if (status == 0) status = es_acl_clib_init(events);
  if (status != 0) {
    fprintf(stderr, "es-acl could not be initialised: %s\n", errcode_string(status));
    return 1;
  }
  void* name_entries[MOST_ACLS];
  void* acl_entries[MOST_ACLS] = {NULL};
  uint32_t results[MOST_ACLS] = {0};
  const es_acl_handle_list names = {(uint32_t)argc - 1, name_entries};
  es_acl_handle_list acls = {0, acl_entries};
  for (int i = 1; i < argc; ++i) name_entries[i - 1] = argv[i];
  return show(&names, &acls, results);
}
