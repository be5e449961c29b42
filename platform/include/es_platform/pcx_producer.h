/* Producer/consumer notification bus (PCX), the producer's side.
 *
 * A producer opens a class and becomes its only one on the host: it listens in the bus's directory (environment
 * ES_PCX_DIR, else $XDG_RUNTIME_DIR/es-acl, else /run/es-acl), which is made with mode 0750 when it is missing. It
 * publishes names, answers requests, and pushes writes to the consumers that registered a name.
 *
 * One service thread per producer accepts connections, answers requests (it calls the `read` operation) and writes out
 * what has been pushed; a small message that comes alone, and large pieces of a burst, are written by the thread that pushes.
 * No operation here ever waits for one consumer: pushes are queued, at most `queue_limit` bytes a consumer; when a queue overflows that
 * consumer's event connection is closed, with a log line and a count, and it will connect and register again. What was
 * pushed in between is not repeated. */
#ifndef ES_PLATFORM_PCX_PRODUCER_H_
#define ES_PLATFORM_PCX_PRODUCER_H_

#include "es_platform/platform.h"

typedef struct pcx_producer pcx_producer;

/* Who asks or answers: a consumer process. */
typedef struct pcx_peer {
  uint64_t id; /* the same for all connections of one process; never used again once they have all ended */
  int32_t pid;
  uint32_t uid;
} pcx_peer;

typedef struct pcx_producer_ops {
  /* Answers a request: writes at most `capacity` bytes to `answer` and its length to *answer_length. The request's bytes
   * are aligned to 8 and may be written to. A non-zero status refuses the request and is what the consumer's pcx_read()
   * returns (11 says "busy"). On the service thread; must not block. */
  uint32_t (*read)(void* user, const pcx_peer* peer, void* request, uint32_t request_length, void* answer,
                   uint32_t capacity, uint32_t* answer_length);
  /* A consumer process has gone, with all its connections; what was kept for it can be freed. May be null. */
  void (*peer_gone)(void* user, const pcx_peer* peer);
  /* A consumer has registered a name. `renewed` 0: a new registration, for which nothing has been read yet; told before
   * anything can be pushed to it. 1: one that was there before a lost connection (to this producer or its predecessor)
   * and behind which the consumer has read; told as soon as it can be pushed to. No lock is held: pushing from inside is
   * allowed. 0, or 12: the registration could not be taken note of; the event connection ends, and the consumer makes a
   * new one and registers again. May be null. */
  uint32_t (*registered)(void* user, const pcx_peer* peer, const char* name, uint32_t renewed);
  /* A consumer has answered the inquiry of that number; without bytes when it has nobody to ask there. Answers may come
   * at any time, also long after the inquiry, or not at all. May be null. */
  void (*inquiry_answered)(void* user, const pcx_peer* peer, uint64_t number, const void* response,
                           uint32_t response_length);
} pcx_producer_ops;

typedef struct pcx_producer_options {
  uint64_t queue_limit;          /* bytes queued per consumer; 0: 64 MiB */
  void (*log)(const char* line); /* where log lines go; null: standard error */
} pcx_producer_options;

/* What a message takes up in a queue beside its bytes, at most. */
enum { PCX_FRAME_ROOM = 64 };

/* One consumer's answer to a synchronous request. */
typedef struct pcx_sync_answer {
  pcx_peer peer;
  uint32_t status;      /* 0; 3: the consumer went away; 62: no answer within the deadline */
  const void* response; /* null when the consumer's handler gave none */
  uint32_t response_length;
} pcx_sync_answer;

PLATFORM_BEGIN_DECLS

/* Opens the class and starts the service thread. `ops` is copied, `user` handed to its operations; `options` may be
 * null. 0 and *out; else *out is null: 98 another producer serves the class; 13, 20, 28, ... the directory or socket
 * could not be made; 12; 22. pcx_producer_error() then tells what, where and why. */
PLATFORM_API uint32_t pcx_producer_open(const char* class_name, const pcx_producer_ops* ops, void* user,
                                        const pcx_producer_options* options, pcx_producer** out);
/* A sentence about this thread's last failed pcx_producer_open(); never null. */
PLATFORM_API const char* pcx_producer_error(void);
/* Stops the service, closes all connections, removes the socket. Not from an operation. Null is allowed. */
PLATFORM_API void pcx_producer_close(pcx_producer* producer);

/* Makes a name known to dsv_lookup_data(). 0, 12, 22; publishing a published name is fine. */
PLATFORM_API uint32_t pcx_producer_publish(pcx_producer* producer, const char* name);
/* Takes it back. 0, or 2 when it was not published. */
PLATFORM_API uint32_t pcx_producer_unpublish(pcx_producer* producer, const char* name);

/* Queues a message (PCX_CMD_WRITE 6 or PCX_CMD_PROD_REQ 17) for every consumer that registered `name`. Messages of one
 * thread keep their order. *reached, when non-null, gets the number of consumers. 0, 12, 22 (also for a message above
 * 64 MiB, or one that no queue could hold). Does not block; allowed from inside an operation. */
PLATFORM_API uint32_t pcx_producer_push(pcx_producer* producer, uint32_t mtype, const char* name,
                                        const void* payload, uint32_t length, uint32_t* reached);
/* The same for one of them, who must not miss it: a message that cannot be queued ends that consumer's event connection,
 * also when no queue could hold it. 0; 2 when the consumer has not registered the name, or its connection has ended;
 * 22. */
PLATFORM_API uint32_t pcx_producer_push_to(pcx_producer* producer, uint64_t peer_id, uint32_t mtype,
                                           const char* name, const void* payload, uint32_t length);

/* Sends a synchronous request (message type 18) to every consumer that registered `name`, behind what was pushed before,
 * and gathers the answers: `gather` is called on the calling thread, once per consumer, after all have answered or
 * deadline_ms has passed. Blocks. Not from an operation. 0, 12, 22. */
PLATFORM_API uint32_t pcx_producer_sync(pcx_producer* producer, const char* name, const void* payload,
                                        uint32_t length, uint32_t deadline_ms,
                                        void (*gather)(void* user, const pcx_sync_answer* answer),
                                        void* user);

/* Puts a question to the inquiry handler (pcx.h) of every consumer that registered `name`, behind what was pushed before,
 * and does not wait: what they answer comes to `inquiry_answered` with *number. `asked` is called on the calling thread
 * for each consumer to which the question is on its way, under the bus's lock: it may call nothing of the bus. 0, 12, 22.
 * Does not block; allowed from inside an operation. */
PLATFORM_API uint32_t pcx_producer_inquire(pcx_producer* producer, const char* name, const void* payload,
                                           uint32_t length, uint64_t* number,
                                           void (*asked)(void* user, const pcx_peer* peer), void* user);

/* Consumers that registered the name now; all consumers for null. */
PLATFORM_API uint32_t pcx_producer_consumers(pcx_producer* producer, const char* name);

PLATFORM_END_DECLS

#endif /* ES_PLATFORM_PCX_PRODUCER_H_ */
