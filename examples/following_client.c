/* A client that follows an ACL: it is told of each change before it is made, and looks at the ACL when it has been
 * made. It has a loop of its own, in which the library's event manager is one descriptor among others.
 *
 *     cc $(pkg-config --cflags es_acl) following_client.c $(pkg-config --libs es_acl) -o following_client
 *     ./following_client edge-user-in        # ends with its input: press Ctrl-D
 *
 * Two threads print here: on_update() is called by the bus's delivery thread, everything else by this one. */
#include <errno.h>
#include <inttypes.h>
#include <poll.h>
#include <stdio.h>
#include <unistd.h>

#include "es_acl/es_acl.h"
#include "es_acl/es_acl_callback.h"
#include "es_platform/diag.h"
#include "es_platform/evm.h"

/* Before the change. Whoever applies ACLs sets aside here what the entries need, and answers with a status if it cannot;
 * the local copy then stays as it is. */
static uint32_t on_update(es_acl_head* acl, uint32_t action, uint32_t n, const ace_edit_info* batch,
                          void* context) {
  (void)context;
  const char* name = es_acl_get_acl_name(acl);
  for (uint32_t i = 0; i < n; ++i)
    printf("%s: %s %" PRIu32 "\n", name, action == ACL_REMOVE_ACE ? "remove" : "add", batch[i].seq);
  return 0;
}

/* After it: once for all the changes of the last second. */
static void on_change(es_acl_head* acl, uint32_t context) {
  (void)context;
  unsigned rules = 0, permits = 0;
  for (es_acl_ace_node* node = es_get_first_ace(acl); node != NULL; node = es_get_next_ace(acl, node)) {
    const es_acl_ace* ace = es_get_ace_data(acl, node);
    if (ace == NULL) break;
    if (ace->kind == ES_ACL_KIND_REMARK) continue;
    ++rules;
    if (ace->grant == ES_ACL_PERMIT) ++permits;
  }
  printf("%s: %u rules, %u of them permit\n", es_acl_get_acl_name(acl), rules, permits);
}

/* Until the input ends. */
static void run(evm* events) {
  struct pollfd wanted[] = {{evm_fd(events), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
  char input[256];
  for (;;) {
    if (poll(wanted, 2, -1) < 0 && errno != EINTR) return;
    if (wanted[0].revents != 0) evm_dispatch(events, 0); /* calls on_change() when it is due */
    if (wanted[1].revents != 0 && read(STDIN_FILENO, input, sizeof input) <= 0) return;
  }
}

static int follow(char* name, evm* events) {
  void* name_entries[] = {name};
  void* acl_entries[] = {NULL};
  uint32_t results[] = {0};
  const es_acl_handle_list names = {1, name_entries};
  es_acl_handle_list acls = {1, acl_entries};

  es_acl_get_acl(&names, &acls, results);
  if (acl_entries[0] == NULL) {
    fprintf(stderr, "%s: %s\n", name, errcode_string(results[0]));
    return 1;
  }
  const es_acl_status status = es_acl_register_callback(acl_entries[0], on_change, 0);
  if (status != 0) {
    fprintf(stderr, "%s: %s\n", name, errcode_string(status));
  } else {
    on_change(acl_entries[0], 0);
    run(events);
  }
  es_acl_release(&acls); /* takes the notification with it; afterwards no callback runs for the ACL */
  return status == 0 ? 0 : 1;
}

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: %s ACL\n", argv[0]);
    return 2;
  }
  setvbuf(stdout, NULL, _IOLBF, 0); /* each line when it is there, also into a file */
  evm* events = NULL;
  es_acl_status status = evm_create(&events);
  if (status == 0) status = es_acl_clib_init(events);
  if (status == 0)
    status = es_acl_register_update_callback(on_update, NULL); /* first: so that nothing is missed */
  if (status != 0) {
    fprintf(stderr, "es-acl could not be initialised: %s\n", errcode_string(status));
    return 1;
  }
  return follow(argv[1], events);
}
