/* Producer/consumer notification bus (PCX), the consumer's side.
 *
 * Requests travel on the calling thread and their answers land directly in the caller's buffer; any number of threads
 * may have one under way, and a handler may itself issue one. What a producer pushes arrives on one delivery thread per
 * process, which calls the handlers for one message at a time, in the order of sending.
 *
 * A read is answered when the registrations that the process made before it have reached the producer, so that no push
 * can fall between a registration and the read behind it.
 *
 * Registrations survive a lost connection: they are made again by themselves when the producer is back. A process
 * without a producer can register all the same. What was pushed meanwhile is not repeated: a link handler is told when
 * that may have happened. Both ends let the other hear from them once a second at least (environment ES_PCX_BEAT_MS, else
 * 1000; alike at both); an event connection on which three such beats are missing is given up.
 *
 * Handles are checked: one that was never given out, or was withdrawn, yields 22 and nothing else. */
#ifndef ES_PLATFORM_PCX_H_
#define ES_PLATFORM_PCX_H_

#include "es_platform/platform.h"

/* Handler of what a producer sends. The payload belongs to the bus, is aligned to 8 bytes, may be written to, and is
 * gone when the handler returns; it is null when the message has no bytes. For a synchronous request the handler sets
 * *response to memory from malloc(), which is the bus's from then on, and *response_length to its size; both are null
 * and 0 on entry. Other message types have no response. Handlers, the link handler too, should not throw. What does ends
 * at the bus: a message then counts as missed, and the connection ends; a PCX_LINK_RENEWED is told again in a second. */
typedef void (*pcx_handler)(uint64_t context, uint32_t mtype, void* payload, uint32_t length, void** response,
                            uint32_t* response_length);

enum { PCX_LINK_LOST = 1, PCX_LINK_RENEWED = 2 };
/* What has become of the event connection that a started registration stands on. `generation` is the connection's number
 * (see pcx_generation()); the name is gone when the handler returns.
 * PCX_LINK_LOST: it has ended, and what it still held has been delivered before; or it has been silent for too long.
 * PCX_LINK_RENEWED: there is a new one (also: the first one) and the producer has been heard on it; what it brings is
 * delivered afterwards. Or pcx_renew_later() asked for it.
 * Called on the delivery thread between messages, without a lock, for one registration of the class after the other. May
 * do what a message handler may: read, register, and withdraw, this registration as well. One that is made between the
 * connection and the call may be told or not. */
typedef void (*pcx_link_handler)(void* reg_handle, const char* name, uint32_t event, uint64_t generation);

/* Answers what a producer asks about a name beside its messages (pcx_producer_inquire()), as of this place among them. It is
 * called on the delivery thread in order with the messages, without a lock, once however many registrations share the
 * name, and has the rights of a message handler. `question` and the response are as there; an inquiry without a handler
 * gets an empty response. The name is gone when the handler returns. */
typedef void (*pcx_inquiry_handler)(const char* name, void* question, uint32_t length, void** response,
                                    uint32_t* response_length);

/* Context record of pcx_set_context(), 32 bytes. */
typedef struct pcx_context_record {
  uint64_t reserved0;
  void* evm_ctx;
  uint32_t class_handle;
  uint32_t reserved20;
  uint32_t one; /* 1 */
  uint32_t reserved28;
} pcx_context_record;

PLATFORM_BEGIN_DECLS

/* Starts the consumer's side for the process. 0, 17 when it is started already, or an errno value. */
PLATFORM_API uint32_t pcx_lr_init(void* ctx);
/* Binds a class to the process. 0, or 22 for an unknown class or a record that is not as described. */
PLATFORM_API uint32_t pcx_set_context(const pcx_context_record* record);

/* Makes the registration a consumer: from now on what is pushed for its name goes to the handler, with `context`. The
 * second argument is 0. Does not block and needs no producer. 0, 12, 17 (it is one already), 22. */
PLATFORM_API uint32_t pcx_register(void* reg_handle, uint32_t flags, uint64_t context, pcx_handler handler);
/* The most handles that one pcx_bulk_register() takes; 0 for an unknown class. */
PLATFORM_API uint32_t pcx_get_num_bulk_handles(uint32_t class_handle);
/* pcx_register() for `count` handles, as dsv_register_bulk() wrote them. An item whose code is not 0 is passed over and
 * keeps it; the others get the status that pcx_register() would have given. The three zeros are 0. 0; or 22 (null
 * arguments, too many handles), and then nothing is registered. */
PLATFORM_API uint32_t pcx_bulk_register(void* const* reg_handles, uint32_t* codes, uint32_t count,
                                        uint32_t zero1, uint32_t zero2, uint64_t zero3, pcx_handler handler);
/* Withdraws the registration from the bus and from the name service. When it returns, neither its handler nor the link
 * handler is running for this registration on another thread or is called for it again; called from inside the handler
 * it does not wait for that call. 0, or 22. */
PLATFORM_API uint32_t pcx_unregister(void* reg_handle);

/* Makes the started registration a new one, as if it had been withdrawn and made again: nothing that was pushed before is
 * delivered afterwards, and the producer takes it for one that has read nothing. So are other registrations of the same
 * name in this process. Waits for a running handler as pcx_unregister() does. 0, or 22. */
PLATFORM_API uint32_t pcx_register_anew(void* reg_handle);

/* Sets the class's link handler; null: none. A call that is running is not waited for. 0, or 22. */
PLATFORM_API uint32_t pcx_set_link_handler(uint32_t class_handle, pcx_link_handler handler);
/* Sets what answers inquiries about the class's names; null: nothing. A call that is running is not waited for. 0, or
 * 22. */
PLATFORM_API uint32_t pcx_set_inquiry_handler(uint32_t class_handle, pcx_inquiry_handler handler);
/* The number of the event connection that brings what is pushed to the class: 1 and up, never used again. 0 while there
 * is none: no producer, or nothing registered yet. Like pcx_read() it first sees to it that all registrations are on
 * their way, making a connection where there is none, so it may know a connection before PCX_LINK_RENEWED is told of it.
 * Twice the same number, not 0: in between the connection has not been replaced. Blocks at most for the deadline. */
PLATFORM_API uint64_t pcx_generation(uint32_t class_handle);
/* Milliseconds since the receipt of what has been handled last of the event connection, a beat at least: nothing sent
 * before it is missing. UINT32_MAX when nothing of the connection has been handled yet, or there is none. Does not
 * block. */
PLATFORM_API uint32_t pcx_silence_ms(uint32_t class_handle);
/* After how many milliseconds of silence a connection is given up: three beats. 0 for an unknown class. */
PLATFORM_API uint32_t pcx_silence_limit_ms(uint32_t class_handle);
/* Has the link handler called once more for the started registration with PCX_LINK_RENEWED, in delay_ms at the earliest.
 * A later call replaces an earlier one. It is forgotten when the registration is withdrawn and when PCX_LINK_RENEWED
 * is told it before; while there is no connection it waits for the next one. Needs no memory. 0, 22. */
PLATFORM_API uint32_t pcx_renew_later(void* reg_handle, uint32_t delay_ms);

/* 0 when the registration's producer is there, 2 when it is not, 22; 11 or 62 when it is there but does not answer.
 * Blocks, at most for the deadline. */
PLATFORM_API uint32_t pcx_query_producer(void* reg_handle);

/* Sends a request to the producer behind a registration or a bus address and waits for the answer.
 * *answer_length: the buffer's size in, the answer's length out (unchanged on failure). An answer that does not fit is an
 * error (90), never cut; what the buffer holds after a failure is not specified. Blocks, at most for the deadline
 * (environment ES_PCX_DEADLINE_MS, else 5000). 0; 3: no producer, or it went away half-way; 11: it is busy; 62: no answer
 * within the deadline; 12; 22 (also for a request above 64 MiB); or the status with which the producer refused it. */
PLATFORM_API uint32_t pcx_read(void* handle, const void* request, uint32_t request_length, void* answer,
                               uint32_t* answer_length);

/* The size, in bytes, at which messages of the class travel best. 0 for an unknown class. Environment
 * ES_PCX_OPTIMUM_SIZE overrides it (160 to 16777216). */
PLATFORM_API uint32_t pcx_get_optimum_msg_size(uint32_t class_handle);

PLATFORM_END_DECLS

#endif /* ES_PLATFORM_PCX_H_ */
