/* Gets an ACL, takes the first entry out of its own copy, writes "edited" and waits for its end: editing_client NAME */
#include <stdio.h>
#include <unistd.h>

#include "es_acl/es_acl.h"
#include "es_acl/es_acl_store.h"
#include "es_platform/evm.h"

int main(int argc, char** argv) {
  evm* events;
  void *name = argv[argc - 1], *acl = NULL;
  const es_acl_handle_list names = {1, &name};
  es_acl_handle_list acls = {1, &acl};
  if (evm_create(&events) != 0 || es_acl_clib_init(events) != 0) return 1;
  if (es_acl_get_acl(&names, &acls, NULL) != 0) return 1;
  es_acl_delete_item(acl, es_get_ace_data(acl, es_get_first_ace(acl))->seq);
  puts("edited");
  fflush(stdout);
  return pause();
}
