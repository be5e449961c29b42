#include "options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>

#include "fields.h"

namespace es_acl::tool {

namespace {

constexpr size_t kStoreNameMax = 255;
constexpr char kAddOnly[] = "add-only";

constexpr char kFooter[] =
    "Environment: ES_PCX_DIR names the directory of the producer's sockets (else\n"
    "$XDG_RUNTIME_DIR/es-acl, else /run/es-acl); ES_PCX_DEADLINE_MS is how long an exchange with the\n"
    "producer may take (5000); NO_COLOR switches colour off.\n\n"
    "Exit codes: 0 all ACLs were had; 1 at least one could not be had; 2 wrong command line; 3 the\n"
    "library could not be initialised; 4 there is no producer, or none can be reached; 5 the output\n"
    "could not be written; 6 watch: the time was over before the events were there; 7 verify: a client\n"
    "that is in step differs from the producer, or one did not answer.";

void set_words(uint16_t (&field)[3], const MacWords& words) { std::copy(words.begin(), words.end(), field); }

// Takes an address into a field of the frame, and says what is wrong with one that is none.
CLI::callback_t mac_into(uint16_t (&field)[3]) {
  return [&field](const CLI::results_t& values) {
    const auto words = parse_mac(values.front());
    if (!words)
      throw CLI::ValidationError("'" + printable(values.front()) +
                                 "' is not a MAC address such as 00:11:22:33:44:55");
    set_words(field, *words);
    return true;
  };
}

CLI::callback_t ethertype_into(uint16_t& field) {
  return [&field](const CLI::results_t& values) {
    const auto number = parse_ethertype(values.front());
    if (!number)
      throw CLI::ValidationError("'" + printable(values.front()) +
                                 "' is not an EtherType such as 0x88cc or ipv6");
    field = *number;
    return true;
  };
}

void add_tag(CLI::App& match, const std::string& prefix, const std::string& which, uint16_t& vlan,
             uint8_t& cos, uint8_t& dei) {
  CLI::Option* id =
      match
          .add_option("--" + prefix + "vlan", vlan, which + " tag's VLAN id; without it there is no such tag")
          ->check(CLI::Range(0, 4095));
  // Read as numbers: a uint8_t would be taken for a character.
  const auto small_number = [&](const std::string& name, uint8_t& field, int highest,
                                const std::string& what) {
    match
        .add_option_function<unsigned>(
            "--" + prefix + name, [&field](const unsigned& value) { field = static_cast<uint8_t>(value); },
            which + " tag's " + what + " (default 0)")
        ->check(CLI::Range(0, highest))
        ->needs(id);
  };
  small_number("pcp", cos, 7, "priority code point");
  small_number("dei", dei, 1, "drop-eligible indicator");
}

void add_names(CLI::App& command, Options& options) {
  command.add_option("NAME", options.names, "names of ACLs")->type_name("");
  command
      .add_option(
          "--all-from", options.list,
          "file with further names, one a line; - is standard input. Empty\nlines are passed over, and so is "
          "what follows a #")
      ->type_name("FILE");
  command.callback([&options] {
    if (options.names.empty() && !options.list) throw CLI::RequiredError("NAME or --all-from FILE");
  });
}

void add_match(CLI::App& app, Options& options) {
  CLI::App& match =
      *app.add_subcommand("match", "tell what an ACL does with a frame, and which entry decides");
  es_acl_match_key& frame = options.frame;
  match.add_option("NAME", options.names, "name of the ACL")->required()->expected(1)->type_name("");
  match.add_option("--src", mac_into(frame.src_addr), "source address")->required()->type_name("MAC");
  match.add_option("--dst", mac_into(frame.dst_addr), "destination address")->required()->type_name("MAC");
  add_tag(match, "", "outer", frame.vlan, frame.cos, frame.dei);
  add_tag(match, "inner-", "inner", frame.ivlan, frame.icos, frame.idei);
  match.get_option("--inner-vlan")->needs(match.get_option("--vlan"));
  frame.eth_type = 0x0800;
  match.add_option("--ethertype", ethertype_into(frame.eth_type), "EtherType behind the tags (default ipv4)")
      ->type_name("HEX|name");
}

void complete_frame(const CLI::App& match, es_acl_match_key* frame) {
  if (match.count("--inner-vlan") != 0)
    frame->tags = ES_ACL_KEY_DOUBLE_TAGGED;
  else if (match.count("--vlan") != 0)
    frame->tags = ES_ACL_KEY_TAGGED;
}

void add_watch(CLI::App& app, Options& options) {
  CLI::App& command =
      *app.add_subcommand("watch",
                          "hold ACLs and print what is changed and asked, until ended. More than one\n"
                          "are held without their remarks");
  WatchOptions& watch = options.watch;
  add_names(command, options);
  command.add_option("--count", watch.count, "end after N events")
      ->type_name("N")
      ->check(CLI::Validator(CLI::Range(uint64_t{1}, uint64_t{UINT32_MAX})).description(""));
  command
      .add_option("--timeout", watch.timeout,
                  "end after S seconds; with --count, with exit code 6 if N is not reached")
      ->type_name("S")
      ->check(CLI::Validator(CLI::Range(0.001, 1e6)).description(""));
  command
      .add_option(
          "--refuse-above", watch.refuse_above,
          "answer a question for resources with status 28 (no space) if the ACL\nwould then hold more than N "
          "entries; otherwise all are granted")
      ->type_name("N");
  command.add_flag_callback(
      "--not-in-use", [&watch] { watch.in_use = false; },
      "answer the question whether ACLs are used with no; otherwise\nit is yes");
  command
      .add_option_function<std::string>(
          "--modify-mode",
          [&watch](const std::string& word) {
            watch.modify_mode = word == kAddOnly ? ES_ACL_MODIFY_ADD_ONLY : ES_ACL_MODIFY_DELETE_AND_ADD;
          },
          "delete-and-add: an entry that replaces another is told as a removal\nand an addition (default); "
          "add-only: as an addition with both")
      ->type_name("MODE")
      ->check(CLI::Validator(CLI::IsMember({"delete-and-add", kAddOnly})).description(""));
}

void add_verify(CLI::App& app, Options& options) {
  CLI::App& command = *app.add_subcommand(
      "verify", "ask the producer and all clients what they have of ACLs, and tell who differs");
  add_names(command, options);
  command.add_option("--wait", options.wait, "wait S seconds for the clients' answers (3)")
      ->type_name("S")
      ->check(CLI::Validator(CLI::Range(0.001, 60.0)).description(""));
}

void describe(CLI::App& app, Options& options) {
  app.require_subcommand(1);
  app.fallthrough();
  app.footer(kFooter);
  app.set_version_flag("--version", "es-acl " ES_ACL_VERSION);
  app.add_flag("--json", options.json, "answer with one JSON document; watch: with one a line");
  app.add_option("--store", options.store, "store plug-in to use instead of libes_acl_tree.dll")
      ->type_name("FILE")
      ->check([](const std::string& name) {
        return name.size() > kStoreNameMax ? std::string("the name is longer than 255 characters")
                                           : std::string();
      });
  add_names(*app.add_subcommand("show",
                                "print the entries of ACLs. More than one are fetched together, without\n"
                                "their remarks; one alone with them"),
            options);
  add_names(*app.add_subcommand("count", "print how many entries ACLs have"), options);
  add_match(app, options);
  add_verify(app, options);
  add_watch(app, options);
}

Command chosen(const CLI::App& app) {
  if (app.got_subcommand("count")) return Command::kCount;
  if (app.got_subcommand("watch")) return Command::kWatch;
  if (app.got_subcommand("verify")) return Command::kVerify;
  return app.got_subcommand("match") ? Command::kMatch : Command::kShow;
}

// The parser misses the subcommand before it looks at the words that are there.
std::string usage_error(const CLI::App& app, const CLI::ParseError& error) {
  const auto words = app.remaining();
  if (app.get_subcommands().empty() && !words.empty()) return "no such command: " + printable(words.front());
  return printable(error.what());
}

}  // namespace

const char* command_name(Command command) {
  switch (command) {
    case Command::kShow:
      return "show";
    case Command::kCount:
      return "count";
    case Command::kWatch:
      return "watch";
    case Command::kVerify:
      return "verify";
    case Command::kMatch:
      break;
  }
  return "match";
}

std::optional<int> parse_command_line(int argc, char** argv, Options* options) {
  CLI::App app("Shows the Layer-2 access control lists that this host's producer serves.", "es-acl");
  describe(app, *options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& end) {
    if (end.get_exit_code() == 0) return app.exit(end);
    std::fprintf(stderr, "es-acl: %s (try --help)\n", usage_error(app, end).c_str());
    return kExitUsage;
  }
  options->command = chosen(app);
  if (options->command == Command::kMatch) complete_frame(*app.get_subcommand("match"), &options->frame);
  return std::nullopt;
}

}  // namespace es_acl::tool
