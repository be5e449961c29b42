/* The whole client interface from plain C: every public header in one program, and the usual round of a
 * client. */
#include <stdio.h>
#include <string.h>

#include "es_acl/es_acl.h"
#include "es_acl/es_acl_cpcx.h"
#include "es_acl/es_acl_status.h"
#include "es_acl/es_acl_store.h"
#include "es_acl/es_acl_types.h"
#include "es_acl/es_acl_wire.h"

#define CHECK(condition)                                              \
  do {                                                                \
    if (!(condition)) {                                               \
      fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition); \
      return 1;                                                       \
    }                                                                 \
  } while (0)

static uint32_t count_entry(es_acl_head* acl, const es_acl_ace* ace, va_list* args) {
  uint32_t* const visited = va_arg(*args, uint32_t*);
  (void)acl;
  (void)ace;
  ++*visited;
  return 0;
}

static int use_held_acl(es_acl_head* acl) {
  uint32_t visited = 0;
  uint32_t aces = 0;
  uint32_t remarks = 0;
  es_acl_iter iter = NULL;
  es_acl_ace* const ace = es_acl_alloc_rules();
  CHECK(ace != NULL);
  memset(ace, 0, sizeof *ace);
  ace->seq = 10;
  es_acl_ace_set_match_mask(ace, ES_ACL_MATCH_VLAN | ES_ACL_MATCH_IDEI);
  CHECK(es_acl_ace_match_mask(ace) == 0x104);
  CHECK(es_acl_add_acl_item(acl, ace, 10, ES_ACL_ADD_KEEP) == 0);
  CHECK(es_get_ace_data(acl, es_get_first_ace(acl)) == ace);
  CHECK(es_acl_traverse_list("edge", 0, count_entry, &visited) == 0);
  CHECK(visited == 1);
  CHECK(es_acl_search_item_fiter(acl, 10, &iter) == es_acl_search_item(acl, 10));
  CHECK(es_acl_get_ace_count("edge", &aces, &remarks) == 0);
  CHECK(aces == 1);
  CHECK(es_acl_lookup("edge") == acl);
  return 0;
}

int main(void) {
  int context = 0;
  char edge[] = "edge";
  char bad[] = "not a name";
  void* names_[] = {edge, bad};
  void* acls_[2];
  uint32_t results[2];
  const es_acl_handle_list names = {2, names_};
  es_acl_handle_list acls = {2, acls_};

  CHECK(es_acl_clib_init(&context) == 0);
  CHECK(es_acl_get_acl(&names, &acls, results) == (es_acl_status)ES_ACL_E_NAME);
  CHECK(results[0] == 0 && acls_[0] != NULL);
  CHECK(results[1] == (es_acl_status)ES_ACL_E_NAME && acls_[1] == NULL);
  CHECK(use_held_acl(acls_[0]) == 0);
  es_acl_release(&acls);
  CHECK(es_acl_lookup("edge") == NULL);
  return 0;
}
