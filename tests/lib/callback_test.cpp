// The four kinds of process-wide callbacks: what is registered, and who is asked in which order.
#include "es_acl/es_acl_callback.h"
#include "library_fixture.h"

using namespace es_test;

namespace {

Script<uint32_t()> answers;  // what the callbacks return, or do

uint32_t ask(const std::string& call) {
  const Backstage backstage;
  record(kCall, call);
  return answers();
}
uint32_t on_update(es_acl_head* acl, uint32_t action, uint32_t n, const ace_edit_info* batch, void* context) {
  return ask(describe("on_update", acl, action, n, batch, context));
}
uint32_t on_reseq(es_acl_head* acl, uint32_t start, uint32_t step, uint32_t n, const uint32_t* skip,
                  void* context) {
  return ask(describe("on_reseq", acl, start, step, n, skip, context));
}
uint32_t on_check(es_acl_head* acl, uint32_t n, const ace_edit_info* batch, int32_t cancel, void* context) {
  return ask(describe("on_check", acl, n, batch, cancel, context));
}
uint32_t on_usage() { return ask("on_usage()"); }

ace_edit_info batch[2];
uint32_t skip_list[2] = {20, 30};
char first, second, third;  // contexts

const std::string kUsualEntry = "I: Entering : %s";

// One kind. %s stands for an operation's name, CONTEXT for what the entry holds.
struct KindOfCallback {
  const char* name;
  std::function<uint32_t(bool, void*)> add;  // with the function, or a null one
  std::function<void(void*)> remove;
  std::function<uint32_t(es_acl_head*)> invoke;
  std::string call;
  std::string entering_add = kUsualEntry, entering_remove = kUsualEntry, entering = kUsualEntry;
  std::string null_function = "E: %s: Invalid callback function";
  std::string no_registry = "E: %s:Memory allocation falied for registry";
  Lines before_call = {"trace w"};
  std::string failure = "E: %s: callback func failed <0x5>";
  uint32_t without_registry = 0;
  bool shows_stored = false;
};
void PrintTo(const KindOfCallback& kind, std::ostream* out) { *out << kind.name; }

const KindOfCallback kKinds[] = {
    {.name = "update",
     .add = [](bool f, void* c) { return es_acl_register_update_callback(f ? on_update : nullptr, c); },
     .remove = [](void* c) { es_acl_unregister_update_callback(on_update, c); },
     .invoke = [](es_acl_head* acl) { return es_acl_invoke_update_callback(acl, 7, 2, batch); },
     .call = "on_update(head:edge, 7, 2, batch, CONTEXT)",
     .before_call = {"D: %s Invoking callback function for the acl edge batch 2 action ACL_ADD_ACE",
                     "trace w"},
     .shows_stored = true},
    {.name = "res_check",
     .add = [](bool f, void* c) { return es_acl_register_res_check_callback(f ? on_check : nullptr, c); },
     .remove = [](void* c) { es_acl_unregister_res_check_callback(on_check, c); },
     .invoke = [](es_acl_head* acl) { return es_acl_invoke_res_check_callback(acl, 2, batch, -1); },
     .call = "on_check(head:edge, 2, batch, -1, CONTEXT)",
     .shows_stored = true},
    {.name = "resequence",
     .add = [](bool f, void* c) { return es_acl_register_resequence_callback(f ? on_reseq : nullptr, c); },
     .remove = [](void* c) { es_acl_unregister_resequence_callback(on_reseq, c); },
     .invoke = [](es_acl_head* acl) { return es_acl_invoke_resequence_callback(acl, 100, 10, 2, skip_list); },
     .call = "on_reseq(head:edge, 100, 10, 2, skips, CONTEXT)",
     .entering_add = "I: Entering %s",
     .entering_remove = "I: Entering : %s ",
     .entering = "I: Entering  %s acl edge start_seq 100 step 10",
     .null_function = "E: %s: Invalid acl or callback func",
     .no_registry = "E: %s: registry_create failed ",
     .failure = "E: %s: Acl edge Error returned from reseq callback: <0x5>",
     .without_registry = 22},
    {.name = "check_usage",
     .add = [](bool f, void*) { return es_acl_register_check_usage_callback(f ? on_usage : nullptr); },
     .remove = [](void*) { es_acl_unregister_check_usage_callback(on_usage); },
     .invoke = [](es_acl_head*) { return es_acl_invoke_check_usage_callback(); },
     .call = "on_usage()",
     .null_function = "",
     .no_registry = ""},
};

class Callbacks : public LibraryTest, public ::testing::WithParamInterface<KindOfCallback> {
 protected:
  void SetUp() override {
    initialise();
    acl_ = make_acl("edge");
    answers.always(0);
    const std::pair<const char*, char*> contexts[] = {
        {"first", &first}, {"second", &second}, {"third", &third}};
    for (const auto& [name, context] : contexts) name_pointer(context, name);
    name_pointer(batch, "batch");
    name_pointer(skip_list, "skips");
    for (void* function : {reinterpret_cast<void*>(on_update), reinterpret_cast<void*>(on_reseq),
                           reinterpret_cast<void*>(on_check), reinterpret_cast<void*>(on_usage)})
      name_pointer(function, "function");
  }

  // The line with the name of this kind's operation; none for an empty one.
  static Lines of(const std::string& verb, Lines texts) {
    std::erase(texts, "");
    for (std::string& text : texts)
      if (const size_t at = text.find("%s"); at != std::string::npos)
        text.replace(at, 2, "es_acl_" + verb + "_" + GetParam().name + "_callback");
    return texts;
  }
  static bool is_usage() { return std::string(GetParam().name) == "check_usage"; }
  static std::string stored(const std::string& operation, const char* context) {
    return "list_registry_" + operation + "(registry, function, " + (is_usage() ? "null" : context) + ")";
  }
  static Lines called(const char* context) {
    std::string call = GetParam().call;
    if (const size_t at = call.find("CONTEXT"); at != std::string::npos) call.replace(at, 7, context);
    return lines(of("invoke", GetParam().before_call), call);
  }

  es_acl_head* acl_ = nullptr;
};

TEST_P(Callbacks, Registration) {
  const KindOfCallback& kind = GetParam();
  const Lines entering = of("register", {kind.entering_add});
  const bool is_check = std::string(kind.name) == "res_check";
  kind.remove(&first);
  EXPECT_EQ(take_log(), of("unregister", {kind.entering_remove})) << "there is no registry yet";
  EXPECT_EQ(kind.add(false, &first), 22U);
  EXPECT_EQ(take_log(), lines(entering, of("register", {kind.null_function})));

  platform().list_registry_create.next(nullptr);
  EXPECT_EQ(kind.add(true, &first), 12U);
  EXPECT_EQ(take_log(),
            lines(entering, "list_registry_create(0, 3)", of("register", {kind.no_registry}), "trace w"));
  EXPECT_EQ(es_acl_res_check_required(), 0U);

  platform().list_registry_add.next(77);
  EXPECT_EQ(kind.add(true, &first), 77U);
  EXPECT_EQ(take_log(), lines(entering, "list_registry_create(0, 3)", stored("add", "first")));
  EXPECT_EQ(kind.add(true, &second), 0U);
  EXPECT_EQ(take_log(), lines(entering, stored("add", "second")));
  kind.remove(&second);
  EXPECT_EQ(take_log(), lines(of("unregister", {kind.entering_remove}), stored("delete", "second")));
  EXPECT_EQ(es_acl_res_check_required() != 0, is_check) << "it stays, though nobody is left";
}

TEST_P(Callbacks, WithoutRegistryAndWithAnEmptyOne) {
  const KindOfCallback& kind = GetParam();
  char null_refused[160], none_refused[160];
  const char* const format = "E: %%s: Error Invalid acl %p (or) es_acl_reseq_notify %p ";
  void* const none = nullptr;
  snprintf(none_refused, sizeof none_refused, format, static_cast<void*>(acl_), none);
  snprintf(null_refused, sizeof null_refused, format, none, none);
  const bool is_reseq = std::string(kind.name) == "resequence";
  EXPECT_EQ(kind.invoke(acl_), kind.without_registry);
  EXPECT_EQ(take_log(), of("invoke", {is_reseq ? none_refused : kind.entering, "trace w"}));
  if (!is_usage()) {
    EXPECT_EQ(kind.invoke(nullptr), 22U);
    EXPECT_EQ(take_log(), of("invoke", {is_reseq ? "" : kind.entering,
                                        is_reseq ? null_refused : "E: %s: Invalid acl", "trace w"}));
  }
  kind.add(true, &first);
  kind.remove(&first);
  clear_log();
  EXPECT_EQ(kind.invoke(acl_), 0U);
  const Lines shown = take_log();
  ASSERT_GE(shown.size(), 2U);
  EXPECT_EQ(shown[1], "list_registry_first(registry, ptr, ptr)");
}

// Three callbacks, of which the second decides. The check of usage is decided by a 1 alone.
TEST_P(Callbacks, InOrderUntilOneDecides) {
  const KindOfCallback& kind = GetParam();
  for (char* context : {&first, &second, &third}) kind.add(true, context);
  clear_log();
  answers.next(0);
  answers.next(is_usage() ? 1 : 5);
  EXPECT_EQ(kind.invoke(acl_), is_usage() ? 1U : 5U);
  const Lines end = is_usage() ? Lines{"I: %s returning TRUE"} : Lines{kind.failure, "trace w"};
  EXPECT_EQ(take_log(), lines(of("invoke", {kind.entering}), "list_registry_first(registry, ptr, ptr)",
                              called("first"), "list_registry_next(ptr, ptr, ptr)", called("second"),
                              "list_registry_end(ptr)", of("invoke", end)));
  EXPECT_EQ(kind.invoke(acl_), 0U) << "all agree";
  EXPECT_EQ(log_of("on_").size(), 3U);
  EXPECT_EQ(log_of("list_registry_next").size(), 3U);
  EXPECT_EQ(log_of("list_registry_end"), Lines{}) << "a walk to the end ends itself";
  EXPECT_EQ(log_of("E: "), Lines{});
}

TEST_P(Callbacks, ACallbackUnregistersItself) {
  const KindOfCallback& kind = GetParam();
  kind.add(true, &first);
  answers.next([&kind] { return kind.remove(&first), 0U; });
  kind.invoke(acl_);
  kind.invoke(acl_);
  EXPECT_EQ(log_of("on_").size(), 1U);
}

// What is stored is shown without a lock: the store is told before.
TEST_P(Callbacks, AreALookAtWhatIsStored) {
  const KindOfCallback& kind = GetParam();
  kind.invoke(acl_);
  EXPECT_EQ(acl_->looks, 0U) << "nobody looks";
  kind.add(true, nullptr);
  for (int i = 0; i < 2; ++i) {
    kind.invoke(acl_);
    EXPECT_EQ(acl_->looks % 2 != 0, kind.shows_stored);
  }
}

INSTANTIATE_CASES(Callbacks, kKinds);

using Invocation = Callbacks;

TEST_F(Invocation, UsageIsTheLastAnswerUnlessOneIsYes) {
  for (int i = 0; i < 3; ++i) es_acl_register_check_usage_callback(on_usage);
  const std::tuple<Numbers, uint32_t, size_t> rows[] = {
      {{0, 1, 0}, 1, 2}, {{0, 0, 2}, 2, 3}, {{2, 0, 0}, 0, 3}, {{2, 1}, 1, 2}};
  for (const auto& [given, answer, asked] : rows) {
    for (size_t i = 0; i < asked; ++i) answers.next(given[i]);
    clear_log();
    EXPECT_EQ(es_acl_invoke_check_usage_callback(), answer);
    EXPECT_EQ(log_of("on_usage").size(), asked);
    EXPECT_EQ(log().back(), std::string("I: es_acl_invoke_check_usage_callback returning ") +
                                (answer != 0 ? "TRUE" : "FALSE"));
  }
}

// A removal is named as one. An entry may be without a function; the skip list's first number is read for the trace only when there is one.
TEST_F(Invocation, NothingIsReadOrCalledThatIsNotThere) {
  es_acl_register_update_callback(on_update, nullptr);
  es_acl_invoke_update_callback(acl_, 1, 3, nullptr);
  EXPECT_EQ(log_of("on_update"), Lines{"on_update(head:edge, 1, 3, null, null)"});
  EXPECT_TRUE(log_of("D: ").at(0).ends_with("for the acl edge batch 3 action ACL_REMOVE_ACE"));
  es_acl_register_resequence_callback(on_reseq, nullptr);
  platform().list_registry_first.next([](list_registry*, list_registry_function* function, void** context) {
    *function = nullptr;
    *context = nullptr;
    return reinterpret_cast<list_registry_cursor*>(&first);
  });
  platform().list_registry_next.next(nullptr);
  EXPECT_EQ(es_acl_invoke_resequence_callback(acl_, 1, 1, 0, nullptr), 0U);
  EXPECT_EQ(log_of("on_reseq"), Lines{});
  EXPECT_EQ(es_acl_invoke_resequence_callback(acl_, 1, 1, 0, nullptr), 0U);
  EXPECT_EQ(log_of("on_reseq"), Lines{"on_reseq(head:edge, 1, 1, 0, null, null)"});
}

}  // namespace
