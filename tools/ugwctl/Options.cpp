#include "tools/ugwctl/Options.h"

#include <getopt.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tools/ugwctl/Failure.h"
#include "tools/ugwctl/Text.h"

namespace ugwctl {
namespace {

struct CommandRow {
    const char* name;
    Command command;
    const char* arguments;
    std::size_t fewest;
    std::size_t most;
    const char* options;  // the short names of those that it takes, beside the common ones
    const char* help;
};
constexpr CommandRow commandTable[] = {
    {"tree", Command::Tree, "", 0, 0, "", "nodes, IDs, links, kinds, communication state"},
    {"show", Command::Show, "[ID]", 0, 1, "jr", "everything a node holds, or all nodes, in words"},
    {"states", Command::States, "ID", 1, 1, "", "status bits of a module, worst class first"},
    {"watch", Command::Watch, "", 0, 0, "c", "live view of the plant; q quits"},
    {"shutdown", Command::Shutdown, "", 0, 0, "yntS", "shut the system down after a delay"},
    {"restore", Command::Restore, "", 0, 0, "yntSR", "shut the system down and start it again, with delays"},
    {"cancel", Command::Cancel, "", 0, 0, "ynt", "cancel a shutdown or restore that is under way"},
    {"battery-test", Command::BatteryTest, "", 0, 0, "ynt", "test the batteries"},
    {"module", Command::Module, "ID on|off", 2, 2, "ynt", "turn a module on or off"},
    {"metrics", Command::Metrics, "", 0, 0, "", "the plant as Prometheus text"},
};

struct OptionRow {
    const char* name;
    char letter;
    const char* argument;  // null for none
    const char* help;
};
constexpr OptionRow optionTable[] = {
    {"dir", 'd', "DIR", "the gateway's working directory, which holds the file UGW (default: .)"},
    {"json", 'j', nullptr, "show: one JSON document"},
    {"raw", 'r', nullptr, "show: the bytes"},
    {"count", 'c', "N", "watch: end after N pictures (default: 0, go on)"},
    {"shut-delay", 'S', "N", "shutdown, restore: delay before, 0 to 65534 in the module's unit (default: 0)"},
    {"reboot-delay", 'R', "N", "restore: delay before the start, 0 to 65534 in the module's unit (default: 0)"},
    {"yes", 'y', nullptr, "commands: don't ask"},
    {"dry-run", 'n', nullptr, "commands: print what would be written, write nothing"},
    {"timeout", 't', "SECONDS", "commands: wait so long to be taken, 1 to 3600 (default: 20)"},
    {"help", 'h', nullptr, "this text"},
    {"version", 'V', nullptr, "version and revision"},
};
constexpr char COMMON_OPTIONS[] = "dhV";

struct StatusRow {
    ExitStatus status;
    const char* help;
};
constexpr StatusRow statusTable[] = {
    {ExitStatus::Done, "done"},
    {ExitStatus::Failed, "output can't be written, terminal can't be used"},
    {ExitStatus::Usage, "wrong command line"},
    {ExitStatus::NoSegment, "no segment, or not permitted"},
    {ExitStatus::BadSegment, "the segment holds no tree of this layout or is too small"},
    {ExitStatus::DeadGateway, "the gateway isn't running, or its data are too old"},
    {ExitStatus::Torn, "a node changes so fast that no two copies of it agree"},
    {ExitStatus::NoNode, "no node of that ID, or of another kind"},
    {ExitStatus::Pending, "another command is pending"},
    {ExitStatus::NotTaken, "nobody has taken the command in time; it was withdrawn"},
    {ExitStatus::NotConfirmed, "not confirmed"},
};

constexpr int MAX_DELAY = 65534;  // 65535 means not set
constexpr int MAX_TIMEOUT = 3600;
constexpr int MAX_COUNT = 1000000;
constexpr int BASE_10 = 10;

[[noreturn]] void wrong(const std::string& text) {
    throw Failure(ExitStatus::Usage, text + "; try ugwctl --help");
}

const OptionRow& rowOf(int letter) {
    for (const OptionRow& row : optionTable) {
        if (row.letter == letter) {
            return row;
        }
    }
    return optionTable[0];
}

int numberOf(const char* text, int lowest, int highest, const char* option) {
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text, &end, BASE_10);
    if (errno != 0 || end == text || *end != '\0' || value < lowest || value > highest) {
        wrong(format("--%s wants a number from %d to %d, not %s", option, lowest, highest, printable(text).c_str()));
    }
    return static_cast<int>(value);
}

void take(Options& options, int letter, const char* argument) {
    const char* const name = rowOf(letter).name;
    switch (letter) {
        case 'd':
            options.dir = argument;
            break;
        case 'j':
            options.json = true;
            break;
        case 'r':
            options.raw = true;
            break;
        case 'c':
            options.count = numberOf(argument, 0, MAX_COUNT, name);
            break;
        case 'S':
            options.delayShut = static_cast<uint16>(numberOf(argument, 0, MAX_DELAY, name));
            break;
        case 'R':
            options.delayReboot = static_cast<uint16>(numberOf(argument, 0, MAX_DELAY, name));
            break;
        case 'y':
            options.yes = true;
            break;
        case 'n':
            options.dryRun = true;
            break;
        default:
            options.timeout = numberOf(argument, 1, MAX_TIMEOUT, name);
            break;
    }
}

const CommandRow& commandOf(const char* name) {
    for (const CommandRow& row : commandTable) {
        if (std::strcmp(row.name, name) == 0) {
            return row;
        }
    }
    wrong("unknown command " + printable(name));
}

void check(const CommandRow& row, const Options& options, const std::string& given) {
    for (const char letter : given) {
        if (std::strchr(COMMON_OPTIONS, letter) == nullptr && std::strchr(row.options, letter) == nullptr) {
            wrong(format("%s takes no --%s", row.name, rowOf(letter).name));
        }
    }
    if (options.arguments.size() < row.fewest || options.arguments.size() > row.most) {
        wrong(row.most == 0 ? format("%s takes no argument", row.name)
                            : format("usage: ugwctl %s %s", row.name, row.arguments));
    }
    if (options.json && options.raw) {
        wrong("--json and --raw exclude each other");
    }
    if (row.command == Command::Module && options.arguments[1] != "on" && options.arguments[1] != "off") {
        wrong("a module is turned on or off, not " + printable(options.arguments[1]));
    }
}

}  // namespace

Options parseOptions(int argc, char* argv[]) {
    std::vector<struct option> longOptions;
    std::string letters = ":";
    for (const OptionRow& row : optionTable) {
        const bool takes = row.argument != nullptr;
        longOptions.push_back({row.name, takes ? required_argument : no_argument, nullptr, row.letter});
        letters += row.letter;
        letters += takes ? ":" : "";
    }
    longOptions.push_back({nullptr, 0, nullptr, 0});

    Options options;
    std::string given;
    optind = 0;  // from the beginning, whatever was parsed before
    int letter;
    while ((letter = getopt_long(argc, argv, letters.c_str(), longOptions.data(), nullptr)) != -1) {
        if (letter == '?') {
            wrong("unknown option " + printable(argv[optind - 1]));
        }
        if (letter == ':') {
            wrong("an argument is missing after " + printable(argv[optind - 1]));
        }
        if (letter == 'h' || letter == 'V') {
            options.command = letter == 'h' ? Command::Help : Command::Version;
            return options;
        }
        given += static_cast<char>(letter);
        take(options, letter, optarg);
    }
    if (optind >= argc) {
        wrong("no command");
    }
    const CommandRow& row = commandOf(argv[optind]);
    options.command = row.command;
    options.arguments.assign(argv + optind + 1, argv + argc);
    check(row, options, given);
    return options;
}

std::string helpText() {
    std::string out =
        "Usage: ugwctl [OPTION]... COMMAND [ARGUMENT]...\n"
        "Looks at the plant that a UGW gateway keeps in shared memory, and gives it commands.\n\nCommands:\n";
    for (const CommandRow& row : commandTable) {
        const std::string usage = std::string(row.name) + (*row.arguments != '\0' ? " " : "") + row.arguments;
        out += format("  %-18s %s\n", usage.c_str(), row.help);
    }
    out += "\nOptions:\n";
    for (const OptionRow& row : optionTable) {
        const std::string usage = format("-%c, --%s%s%s", row.letter, row.name, row.argument != nullptr ? "=" : "",
                                         row.argument != nullptr ? row.argument : "");
        out += format("  %-25s %s\n", usage.c_str(), row.help);
    }
    out +=
        "\nA node is named by its ID as tree shows it, such as SA.BB.M1, or without the system, BB.M1.\n"
        "A command asks for confirmation if standard input is a terminal.\n\nExit status:\n";
    for (const StatusRow& row : statusTable) {
        out += format("  %-2d %s\n", static_cast<int>(row.status), row.help);
    }
    return out;
}

}  // namespace ugwctl
