// Names that the producer of a class has said to be published a moment ago.
//
// Who looks up many names does so one by one, and a request for each would cost more than everything else. So after a few
// lookups in short order the producer is asked for all of its names with the next one, and for a tenth of a second a
// name among them is known without asking. Nothing is known of a name that is not among them, and a name that has just
// been withdrawn may still seem to be there: as it does to one whose lookup was answered just before. Thread-safe.
#ifndef ES_PLATFORM_SRC_BUS_KNOWN_NAMES_H_
#define ES_PLATFORM_SRC_BUS_KNOWN_NAMES_H_

#include <cstdint>
#include <mutex>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace es_platform::bus {

class KnownNames {
 public:
  bool has(std::string_view name);
  // Whether the next lookup is to ask for all names.
  bool wants_all();
  // What a producer has answered: names, each with a NUL behind it. May throw std::bad_alloc, and then nothing is known.
  void learn(std::vector<char> names);

 private:
  void forget_locked();

  std::mutex mutex_;
  std::vector<char> text_;
  std::unordered_set<std::string_view> names_;  // parts of text_
  uint64_t known_until_ns_ = 0;
  uint64_t asked_since_ns_ = 0;
  uint32_t asked_ = 0;  // lookups since then for which the producer had to be asked
};

}  // namespace es_platform::bus

#endif  // ES_PLATFORM_SRC_BUS_KNOWN_NAMES_H_
