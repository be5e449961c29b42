// Synchronous requests: every consumer's answer, or why there is none, and never later than the deadline.
#include <unistd.h>

#include <map>

#include "bus_fixture.h"

namespace bus_test {
namespace {

struct Gathered {
  uint32_t status;
  std::string response;
  bool null;
};
using Answers = std::map<int32_t, Gathered>;  // by process id

Answers ask(Producer& producer, const std::string& name, const std::string& question, uint32_t deadline_ms) {
  Answers answers;
  const auto gather = [](void* user, const pcx_sync_answer* one) {
    const std::string response(static_cast<const char*>(one->response), one->response_length);
    auto& all = *static_cast<Answers*>(user);
    EXPECT_TRUE(all.emplace(one->peer.pid, Gathered{one->status, response, one->response == nullptr}).second);
  };
  EXPECT_EQ(pcx_producer_sync(producer.get(), name.c_str(), question.data(),
                              static_cast<uint32_t>(question.size()), deadline_ms, gather, &answers),
            0U);
  return answers;
}

TEST(BusSync, AnswersComeBehindWhatWasPushed) {
  const std::string name = fresh_class();
  Producer producer(name);
  EXPECT_TRUE(ask(producer, "n", "anybody?", 1000).empty());
  Recorder recorder;
  const Registration registration(name, "n", recorder);
  ASSERT_TRUE(producer.has_consumers("n", 1));
  for (const std::string& response : {std::string("yes"), std::string(), std::string(1000000, 'r')}) {
    recorder.response = response;
    producer.push("n", "before");
    const Answers answers = ask(producer, "n", "well?", 10000);
    ASSERT_EQ(answers.size(), 1U);
    const Gathered& one = answers.begin()->second;
    EXPECT_EQ(answers.begin()->first, getpid());
    EXPECT_EQ(one.status, 0U);
    EXPECT_TRUE(one.response == response);
    EXPECT_EQ(one.null, response.empty());
    const auto messages = recorder.messages();
    EXPECT_EQ(messages.at(messages.size() - 2), "before");
    EXPECT_EQ(messages.back(), "well?");
  }
}

TEST(BusSync, OneDiesAndOneNeverAnswers) {
  const std::string name = fresh_class();
  Producer producer(name);
  Recorder recorder;
  recorder.response = "yes";
  const Registration registration(name, "n", recorder);
  Child dying("consumer", name, "die"), hanging("consumer", name, "hang");
  ASSERT_TRUE(producer.has_consumers("n", 3));
  const uint64_t start = now_ms();
  const Answers answers = ask(producer, "n", "well?", 500);
  EXPECT_GE(now_ms() - start, 500U);
  EXPECT_LT(now_ms() - start, 3000U);
  ASSERT_EQ(answers.size(), 3U);
  EXPECT_EQ(answers.at(getpid()).status, 0U);
  EXPECT_EQ(answers.at(getpid()).response, "yes");
  EXPECT_EQ(answers.at(dying.pid()).status, 3U);
  EXPECT_EQ(answers.at(hanging.pid()).status, 62U);
  EXPECT_TRUE(answers.at(hanging.pid()).null);
  // An answer that comes after the deadline belongs to no request, and not to the next one either.
  hanging.kill_now();
  ASSERT_TRUE(producer.has_consumers("n", 1));
  EXPECT_EQ(ask(producer, "n", "again?", 10000).size(), 1U);
}

TEST(BusSync, BadArguments) {
  const std::string name = fresh_class();
  Producer producer(name);
  const auto gather = [](void*, const pcx_sync_answer*) {};
  EXPECT_EQ(pcx_producer_sync(producer.get(), "n", "q", 1, 10, nullptr, nullptr), 22U);
  EXPECT_EQ(pcx_producer_sync(producer.get(), nullptr, "q", 1, 10, gather, nullptr), 22U);
  EXPECT_EQ(pcx_producer_sync(producer.get(), "n", nullptr, 1, 10, gather, nullptr), 22U);
}

}  // namespace
}  // namespace bus_test
