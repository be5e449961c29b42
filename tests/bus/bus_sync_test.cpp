// Synchronous requests: every consumer's answer, or why there is none, and never later than the deadline.
#include <unistd.h>

#include <map>

#include "bus_fixture.h"

namespace bus_test {
namespace {

using BusSync = Bus;

struct Gathered {
  uint32_t status;
  std::string response;
};
using Answers = std::map<int32_t, Gathered>;  // by process id

Answers ask(Producer& producer, const std::string& question, uint32_t deadline_ms) {
  Answers answers;
  const auto gather = [](void* user, const pcx_sync_answer* one) {
    EXPECT_EQ(one->response == nullptr, one->response_length == 0);
    const std::string response(static_cast<const char*>(one->response), one->response_length);
    const bool first =
        static_cast<Answers*>(user)->emplace(one->peer.pid, Gathered{one->status, response}).second;
    EXPECT_TRUE(first);
  };
  EXPECT_EQ(pcx_producer_sync(producer.get(), "n", question.data(), static_cast<uint32_t>(question.size()),
                              deadline_ms, gather, &answers),
            0U);
  return answers;
}

TEST_F(BusSync, AnswersComeBehindWhatWasPushed) {
  Producer producer(name);
  EXPECT_TRUE(ask(producer, "anybody?", 1000).empty());
  const Registration registration(name, "n", recorder);
  ASSERT_TRUE(producer.has_consumers("n", 1));
  for (const std::string& response : {std::string("yes"), std::string(), std::string(1000000, 'r')}) {
    recorder.response = response;
    producer.push("n", "before");
    const Answers answers = ask(producer, "well?", 10000);
    ASSERT_EQ(answers.size(), 1U);
    EXPECT_EQ(answers.at(getpid()).status, 0U);
    EXPECT_TRUE(answers.at(getpid()).response == response);
    const auto messages = recorder.messages();
    EXPECT_EQ(messages.at(messages.size() - 2), "before");
    EXPECT_EQ(messages.back(), "well?");
  }
}

TEST_F(BusSync, OneDiesAndOneNeverAnswers) {
  Producer producer(name);
  recorder.response = "yes";
  const Registration registration(name, "n", recorder);
  Child dying("die", name), hanging("hang", name);
  ASSERT_TRUE(producer.has_consumers("n", 3));
  const uint64_t start = now_ms();
  const Answers answers = ask(producer, "well?", 500);
  EXPECT_GE(now_ms() - start, 500U);
  EXPECT_LT(now_ms() - start, 3000U);
  ASSERT_EQ(answers.size(), 3U);
  EXPECT_EQ(answers.at(getpid()).response, "yes");
  EXPECT_EQ(answers.at(dying.pid()).status, 3U);
  EXPECT_EQ(answers.at(hanging.pid()).status, 62U);
  // What they had is gone with them, and an answer that is not awaited any more belongs to no later request.
  hanging.kill_now();
  ASSERT_TRUE(producer.has_consumers("n", 1));
  EXPECT_TRUE(eventually([&] { return producer.gone == 2; }));
  EXPECT_EQ(pcx_producer_consumers(producer.get(), nullptr), 1U);
  EXPECT_EQ(ask(producer, "again?", 10000).size(), 1U);
}

}  // namespace
}  // namespace bus_test
