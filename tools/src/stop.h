// Asking this process to end: by SIGINT or SIGTERM, or from any thread.
//
// The request is a descriptor that stays readable, so that whoever waits for something else waits for it as
// well. The second SIGINT or SIGTERM ends the process as if nothing had been set up here: an orderly end may
// have to wait for a producer that does not answer.
#ifndef ES_ACL_TOOLS_STOP_H_
#define ES_ACL_TOOLS_STOP_H_

namespace es_acl::tool {

// Sets it up, once, before the others are used. Throws std::system_error.
void prepare_stop();
// Any thread, also inside a signal handler.
void request_stop() noexcept;
bool stop_requested();
// Polls readable once a stop is requested. Not to be read.
int stop_descriptor();

}  // namespace es_acl::tool

#endif  // ES_ACL_TOOLS_STOP_H_
