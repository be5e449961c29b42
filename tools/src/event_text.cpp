#include <cstdio>
#include <ctime>

#include "entry_text.h"
#include "es_acl/es_acl_callback.h"
#include "es_acl/es_acl_sync.h"
#include "es_platform/diag.h"
#include "event.h"
#include "fields.h"

namespace es_acl::tool {

namespace {

using std::chrono::milliseconds;

void append_time_of_day(std::string& out, Moment moment) {
  const auto since_epoch = std::chrono::floor<milliseconds>(moment.time_since_epoch());
  const time_t seconds = std::chrono::floor<std::chrono::seconds>(since_epoch).count();
  tm parts;
  localtime_r(&seconds, &parts);
  char text[16];
  const size_t length = std::strftime(text, sizeof text, "%H:%M:%S", &parts);
  std::snprintf(text + length, sizeof text - length, ".%03d ", static_cast<int>(since_epoch.count() % 1000));
  out += text;
}

class Text {
 public:
  Text(std::string& out, bool colour) : out_(out), colour_(colour) {}

  void operator()(const Held& held) {
    subject(held.acl);
    line("held, " + summary(held.counts));
  }

  void operator()(const Update& update) {
    const bool removal = update.action == ACL_REMOVE_ACE;
    subject(update.acl);
    line((removal ? "removing " : "adding ") + entries(update.batch));
    for (const ace_edit_info& edit : update.batch) {
      if (removal)
        entry('-', edit.ace);
      else
        replacement(edit);
    }
  }

  void operator()(const Resequencing& resequencing) {
    subject(resequencing.acl);
    append_number(out_ += "renumbered from ", resequencing.start);
    append_number(out_ += " in steps of ", resequencing.step);
    const char* separator = ", passing over ";
    for (const uint32_t number : resequencing.skipped) {
      append_number(out_ += separator, number);
      separator = " ";
    }
    line("");
  }

  void operator()(const ResourceQuestion& question) {
    subject(question.acl);
    if (question.withdrawn) {
      line("resources for " + entries(question.batch) + " are no longer asked for");
    } else {
      line("resources for " + entries(question.batch) + ", " + std::to_string(question.entries) +
           " in all? " + (question.answer == 0 ? "yes" : no(question.answer)));
    }
    for (const ace_edit_info& edit : question.batch) replacement(edit);
  }

  void operator()(const UsageQuestion& question) {
    line(question.answer == 1 ? "in use? yes" : "in use? no");
  }

  void operator()(const Changed& changed) {
    subject(changed.acl);
    line("has changed, " + summary(changed.counts));
  }

  void operator()(const Sync& sync) {
    subject(sync.acl);
    line(sync.state == ES_ACL_IN_STEP       ? "in step with the producer"
         : sync.state == ES_ACL_CATCHING_UP ? "catching up with the producer"
                                            : "out of touch with the producer");
  }

  void operator()(const Unavailable& unavailable) {
    subject(unavailable.acl);
    line(unavailable.problem.text);
  }

 private:
  static std::string entries(Batch batch) { return plural(batch.size(), "entry", "entries"); }

  static std::string no(uint32_t status) {
    return "no, status " + std::to_string(status) + ", " + errcode_string(status);
  }

  void subject(const char* acl) {
    if (acl == nullptr) return;
    put_coloured(out_, printable(acl), colour_ ? kBold : nullptr);
    out_ += ": ";
  }

  void line(const std::string& text) { (out_ += text) += '\n'; }

  void replacement(const ace_edit_info& edit) {
    if (edit.old_ace != nullptr) entry('-', edit.old_ace);
    entry('+', edit.ace);
  }

  void entry(char sign, const es_acl_ace* ace) {
    std::string text = {sign, ' '};
    append_entry(text, *ace);
    const char* const colour = sign == '+' ? kGreen : kRed;
    put_coloured(out_ += "  ", text, colour_ ? colour : nullptr);
    out_ += '\n';
  }

  std::string& out_;
  const bool colour_;
};

}  // namespace

void append_text(std::string& out, const Event& event, Moment moment, bool colour) {
  append_time_of_day(out, moment);
  std::visit(Text(out, colour), event);
}

}  // namespace es_acl::tool
