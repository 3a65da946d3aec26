// The kind of device that is FRRouting (Debian's packages frr and frr-pythontools), by its own
// programs: vtysh shows, checks and changes the running configuration, frr-reload finds the
// difference between two configurations, and watchfrr writes the startup configuration. The caller
// needs no other right than membership of the groups frrvty and frr.
//
// Seen with 8.4: `vtysh -f` goes on after a line that fails, and silently drops a line if the
// daemon that it is for does not run. `frr-reload.py --reload` starts a process for each line that
// it removes, and saves at the end; so only its difference is used here. vtysh takes some 30 ms of
// a processor before it does anything, so one of them answers all commands of an operation at its
// prompt.
#include "platform/host/device/backend.h"

#include "base/c_boundary.h"
#include "base/number.h"
#include "base/ownership.h"
#include "base/posix.h"
#include "base/program_run.h"
#include "base/settings.h"
#include "base/text.h"
#include "platform/host/device/configuration_text.h"
#include "platform/host/device/frr_startup.h"
#include "platform/host/device/named_text.h"
#include "platform/host/device/way_back.h"

#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <functional>
#include <future>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

namespace ulmo {
namespace {

using Texts = std::set<std::string, std::less<>>;

// vtysh reads lines of at most 4095 octets, and takes the rest of a longer one for another line.
constexpr std::size_t longest_line = 4000;

// Which daemon takes the statements that begin with these words, the abbreviated ones too. zebra
// and staticd are not listed: they always run. Of several daemons, one is listed. vtysh keeps a few
// statements for itself, until it ends. Tried with each daemon of 8.4 missing.
struct Owner {
    std::string_view words;
    std::string_view daemon;
};
constexpr std::string_view shell = "vtysh";
constexpr Owner owners[] = {
    {"hostname", shell},
    {"domainname", shell},
    {"banner", shell},
    {"username", shell},
    {"set", "bgpd"},
    {"match", "bgpd"},
    {"key chain", "ripd"},
    {"nexthop-group", "pbrd"},
    {"debug bgp", "bgpd"},
    {"debug ospf", "ospfd"},
    {"debug ospf6", "ospf6d"},
    {"debug rip", "ripd"},
    {"debug ripng", "ripngd"},
    {"debug isis", "isisd"},
    {"debug pim", "pimd"},
    {"debug bfd", "bfdd"},
    {"router bgp", "bgpd"},
    {"bgp", "bgpd"},
    {"rpki", "bgpd"},
    {"vni", "bgpd"},
    {"router ospf", "ospfd"},
    {"ip ospf", "ospfd"},
    {"router ospf6", "ospf6d"},
    {"ipv6 ospf6", "ospf6d"},
    {"router rip", "ripd"},
    {"ip rip", "ripd"},
    {"router ripng", "ripngd"},
    {"ipv6 ripng", "ripngd"},
    {"router isis", "isisd"},
    {"ip router isis", "isisd"},
    {"ipv6 router isis", "isisd"},
    {"isis", "isisd"},
    {"router openfabric", "fabricd"},
    {"ip router openfabric", "fabricd"},
    {"ipv6 router openfabric", "fabricd"},
    {"openfabric", "fabricd"},
    {"router eigrp", "eigrpd"},
    {"router babel", "babeld"},
    {"babel", "babeld"},
    {"ip pim", "pimd"},
    {"ip igmp", "pimd"},
    {"ip msdp", "pimd"},
    {"ip mroute", "pimd"},
    {"ip multicast", "pimd"},
    {"ipv6 pim", "pim6d"},
    {"ipv6 mld", "pim6d"},
    {"ipv6 mroute", "pim6d"},
    {"mpls ldp", "ldpd"},
    {"l2vpn", "ldpd"},
    {"ip nhrp", "nhrpd"},
    {"ipv6 nhrp", "nhrpd"},
    {"nhrp", "nhrpd"},
    {"pbr-map", "pbrd"},
    {"pbr-policy", "pbrd"},
    {"bfd", "bfdd"},
    {"vrrp", "vrrpd"},
    {"segment-routing", "pathd"},
};

// The text line by line; a line end of CR LF counts as LF.
std::vector<std::string_view> lines_of(std::string_view text) {
    std::vector<std::string_view> lines;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        std::string_view line = text.substr(0, end);
        if (line.ends_with('\r')) {
            line.remove_suffix(1);
        }
        lines.push_back(line);
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return lines;
}

std::vector<std::string_view> words_of(std::string_view line) {
    std::vector<std::string_view> words;
    while (!(line = trimmed(line)).empty()) {
        const std::size_t end = std::min(line.find_first_of(" \t"), line.size());
        words.push_back(line.substr(0, end));
        line.remove_prefix(end);
    }
    return words;
}

struct Statement {
    std::size_t line = 0; // its number
    bool is_outermost = false;
    std::string text; // its words, separated by one blank each

    [[nodiscard]] bool is_negated() const { return text.starts_with("no "); }
    // What is set, or removed.
    [[nodiscard]] std::string_view subject() const {
        return std::string_view(text).substr(is_negated() ? 3 : 0);
    }
};

// The statements of a text, without comments and without the lines that FRR shows or needs only to
// end something or to describe itself.
std::vector<Statement> statements_of(std::string_view text) {
    std::vector<Statement> statements;
    std::size_t number = 0;
    for (const std::string_view line : lines_of(text)) {
        ++number;
        const auto words = words_of(line);
        if (words.empty() || words[0].front() == '!' || words[0].front() == '#' ||
            words[0] == "end" || words[0].starts_with("exit") ||
            (words[0] == "frr" && words.size() > 1 && words[1] == "version") ||
            (words[0] == "service" && words.size() > 1 && words[1] == "integrated-vtysh-config")) {
            continue;
        }
        Statement statement{number, words[0].data() == line.data(), {}};
        for (const std::string_view word : words) {
            statement.text.append(statement.text.empty() ? "" : " ").append(word);
        }
        statements.push_back(std::move(statement));
    }
    return statements;
}

// The daemon that takes a statement; empty if any of those that always run does.
std::string_view owner_of(const Statement &statement) {
    const auto words = words_of(statement.subject());
    for (const Owner &owner : owners) {
        const auto whole = words_of(owner.words);
        if (whole.size() <= words.size() &&
            std::equal(whole.begin(), whole.end(), words.begin(),
                       [](std::string_view name, std::string_view word) {
                           return name.starts_with(word);
                       })) {
            return owner.daemon;
        }
    }
    return {};
}

// Commands that vtysh itself would execute in a text, even when it only checks it: `output file`
// overwrites any file of this user, and `configure` hides that there was an `exit` too many.
constexpr std::string_view commands[] = {"configure", "copy",     "find",       "list", "output",
                                         "ping",      "terminal", "traceroute", "write"};

bool is_command(std::string_view word) {
    return std::any_of(std::begin(commands), std::end(commands),
                       [word](std::string_view command) { return command.starts_with(word); });
}

// The last line of a text, which only the configuration mode takes.
constexpr std::string_view last_line = "XFRR_end_configuration";

[[noreturn]] void refuse(std::size_t line, const std::string &reason) {
    throw ConfigurationError(ConfigurationError::Kind::bad_line,
                             "line " + std::to_string(line) + ": " + reason);
}

void require_daemon(const Statement &statement, const Texts &daemons) {
    const std::string_view owner = owner_of(statement);
    if (!statement.is_negated() && !owner.empty() && owner != shell && !daemons.contains(owner)) {
        refuse(statement.line,
               std::string(owner) + " does not run, so FRR has ignored '" + statement.text + "'");
    }
}

// The text as vtysh and frr-reload read it, with the same numbers of lines. Throws
// ConfigurationError for what they would misread or execute.
std::string legible(std::string_view text) {
    std::string result;
    result.reserve(text.size() + 1);
    std::size_t number = 0;
    for (const std::string_view line : lines_of(text)) {
        ++number;
        const auto is_control = [](char octet) {
            return static_cast<unsigned char>(octet) < ' ' && octet != '\t';
        };
        if (std::any_of(line.begin(), line.end(), is_control)) {
            throw ConfigurationError(ConfigurationError::Kind::bad_file,
                                     "line " + std::to_string(number) +
                                         ": a control character, so this is not "
                                         "a configuration text");
        }
        if (line.size() > longest_line) {
            refuse(number, "longer than " + std::to_string(longest_line) + " octets");
        }
        const auto words = words_of(line);
        if (!words.empty() && is_command(words[0])) {
            refuse(number, "'" + std::string(words[0]) +
                               "' is a command of FRR's shell, not a statement of a configuration");
        }
        // frr-reload reads nothing after it.
        result.append(trimmed(line) == "end" ? "" : line).append("\n");
    }
    return result;
}

// What vtysh complains about, without its marks. As no one but the superuser may read /etc/shadow,
// it begins with a warning about the account, which has no line end and no consequence.
std::string plain(std::string_view complaint) {
    constexpr std::string_view warning = "vtysh_pam: ";
    if (complaint.starts_with(warning)) {
        complaint.remove_prefix(std::min(complaint.find(')'), complaint.size() - 1) + 1);
    }
    std::string result(trimmed(complaint));
    if (result.find("] STARVATION: ") != std::string::npos) {
        return {}; // its remark about a command that took five seconds
    }
    const auto drop = [&result](std::string_view mark) {
        const std::size_t at = result.find(mark);
        if (at != std::string::npos) {
            result.erase(at, mark.size());
        }
    };
    drop("% ");
    // vtysh adds a number to each of these, and the indentation of the line.
    for (const char *const problem :
         {"Unknown command", "Command incomplete", "Ambiguous command"}) {
        const std::size_t open = result.find(std::string(problem) + '[');
        const std::size_t colon = std::min(result.find("]:", open), result.size());
        if (open != std::string::npos && colon != result.size()) {
            const std::string line(trimmed(std::string_view(result).substr(colon + 2)));
            result.replace(open + std::string_view(problem).size(), std::string::npos, ": " + line);
        }
    }
    if (result.find("failed to connect to any daemons") != std::string::npos) {
        return "FRR does not run, or this user is not in the group frrvty: start frr, or install "
               "config-copy-mib-frr";
    }
    if (result.starts_with("Can't open configuration file")) {
        return "this user is not in the groups frr and frrvty: install config-copy-mib-frr";
    }
    return result;
}

// The complaint about a file, for the file without its first line.
std::string one_line_less(std::string_view complaint) {
    constexpr std::string_view line = "line ";
    const std::size_t end = std::min(complaint.find(':'), complaint.size());
    if (!complaint.starts_with(line)) {
        return std::string(complaint);
    }
    const auto number = parsed_number<int>(complaint.substr(line.size(), end - line.size()), 1);
    return std::string(line) + std::to_string(number.value_or(1) - 1) +
           std::string(complaint.substr(end));
}

std::string first_line(std::string_view text) {
    constexpr std::size_t longest = 200;
    return one_line(trimmed(trimmed(text).substr(0, trimmed(text).find('\n'))), longest);
}

// A line that an operation's vtysh takes for a comment, and that no other text contains.
std::string new_mark() {
    std::array<char, 16> octets{};
    check(::getrandom(octets.data(), octets.size(), 0), "getrandom");
    return "! " + in_hex({octets.data(), octets.size()}) + "\n";
}

constexpr std::string_view no_whole_configuration = " shows no whole running configuration";

class FrrBackend final : public DeviceBackend {
  public:
    explicit FrrBackend(const std::filesystem::path &directory)
        : vtysh_(program_setting("frr_vtysh")), reload_(program_setting("frr_reload")),
          startup_(text_setting("frr_config"), directory / "frr-save"),
          wanted_file_(directory / "frr-wanted.cfg"),
          time_limit_(std::chrono::seconds(number_setting("device_time_limit").value())) {}

    // vtysh executes line by line.
    [[nodiscard]] bool is_atomic() const override { return false; }

    std::string show_running() override {
        (void)working_daemons();
        return running();
    }

    // During a save there is an instant without the file: show_startup() covers it.
    [[nodiscard]] std::filesystem::path startup_file() const override { return {}; }

    // FRR's own shell writes it as well.
    [[nodiscard]] std::filesystem::path startup_trace() const override { return startup_.file(); }

    std::optional<std::string> show_startup() override { return startup_.text(); }

    void check(std::string_view text) override {
        // After an `exit` too many, vtysh takes commands, such as `clear bgp *`, which apply()
        // would execute.
        const ProgramEnd end =
            vtysh({"-C", "-f", "/dev/stdin"}, legible(text).append(last_line).append("\n"));
        if (end.exit_status != 0 && end.complaint.find(last_line) != std::string::npos) {
            throw ConfigurationError(ConfigurationError::Kind::bad_line,
                                     "an 'exit' too many: it leaves the configuration mode");
        }
        require_taken(end);
    }

    // The check takes a vtysh of its own.
    std::string check_and_show(std::string_view text) override {
        auto checked = std::async(std::launch::async, [&] { check(text); });
        std::string shown;
        try {
            shown = show_running();
        } catch (...) {
            checked.get(); // a refusal counts more
            throw;
        }
        checked.get();
        require_effect(text, shown);
        return shown;
    }

    void apply(std::string_view text) override {
        complaints_.clear();
        // Without these lines, which vtysh adds by itself for -f, the daemons make a change of its
        // own of each line: a thousand take half a minute.
        const NamedText file(wanted_file_, "XFRR_start_configuration\n" +
                                               legible(text).append(last_line).append("\n"));
        ProgramEnd end = ask("copy " + file.name() + " running-config");
        if (!end.complaint.empty()) {
            end.exit_status = EXIT_FAILURE;
            end.complaint = one_line_less(end.complaint);
        }
        require_taken(end);
        for (const std::string_view line : lines_of(end.output)) {
            if (line.starts_with("% ")) {
                complaints_.push_back(plain(line));
            }
        }
    }

    void replace(std::string_view text) override;
    void verify(std::string_view text) override;

    void save(const std::function<void()> &before_commit) override;

    void store_startup(std::string_view /*text*/) override {
        throw std::runtime_error("only FRR itself writes its startup configuration: copy the file "
                                 "to the running configuration, and save that");
    }

    [[nodiscard]] bool has_begun_save() const override { return startup_.has_begun_save(); }
    bool mend_startup() override { return startup_.mend(); }

    void tidy() override {
        quietly([this] { startup_.tidy(); }, [](const char *) {}); // a save says why
        const ActingAsOwner owner(wanted_file_.parent_path());
        ::unlink(wanted_file_.c_str());
    }

    void rest() override { talk_.reset(); }

  private:
    using Words = std::vector<std::string>;

    [[nodiscard]] ProgramCall call_of(const Words &program, std::string_view input) const;
    [[nodiscard]] ProgramEnd run(const Words &program, const Words &arguments,
                                 std::string_view input) const;
    [[nodiscard]] ProgramEnd ask(const std::string &command);
    [[nodiscard]] ProgramEnd shown_at(const std::string &command);
    [[nodiscard]] ProgramEnd vtysh(const Words &arguments, std::string_view input = {}) const {
        return run(vtysh_, arguments, input);
    }
    void require_taken(const ProgramEnd &end) const;
    static void require_effect(std::string_view text, std::string_view shown);
    [[nodiscard]] Texts working_daemons();
    [[nodiscard]] std::string running();
    [[nodiscard]] std::string difference(const std::string &wanted) const;
    [[nodiscard]] std::string refusal_to_write();

    Words vtysh_; // a program with its arguments
    Words reload_;
    FrrStartup startup_;
    std::filesystem::path wanted_file_;
    std::chrono::milliseconds time_limit_;
    std::string mark_ = new_mark();
    std::optional<Conversation> talk_;    // with vtysh at its prompt, until rest()
    std::vector<std::string> complaints_; // of the last apply(), which took all lines
};

ProgramCall FrrBackend::call_of(const Words &program, std::string_view input) const {
    return {.words = program,
            .input = input,
            .time_limit = time_limit_,
            .output_limit = configuration_text_limit,
            .as_owner_of = wanted_file_.parent_path()};
}

// The end with its complaint in plain words. Throws if a limit or a signal was the end.
ProgramEnd plain(const ProgramCall &call, ProgramEnd end) {
    end.complaint = plain(end.complaint);
    if (end.limit != ProgramEnd::Limit::none || end.signal != 0) {
        throw std::runtime_error(call.words[0] + ": " + failure_of(call, end));
    }
    if (end.exit_status != 0 && end.complaint.empty()) {
        end.complaint = end.output.empty() ? failure_of(call, end) : plain(first_line(end.output));
    }
    return end;
}

ProgramEnd FrrBackend::run(const Words &program, const Words &arguments,
                           std::string_view input) const {
    ProgramCall call = call_of(program, input);
    call.words.insert(call.words.end(), arguments.begin(), arguments.end());
    return plain(call, run_program(call));
}

// What the operation's vtysh answers to a command. If it has ended instead, it is given up.
ProgramEnd FrrBackend::ask(const std::string &command) {
    ProgramCall call = call_of(vtysh_, {});
    // It shows the lines that it reads, and would break a long one as at a terminal.
    call.environment = {"TERM=dumb", "COLUMNS=10000", "INPUTRC=/dev/null",
                        "VTYSH_HISTFILE=/dev/null"};
    if (!talk_) {
        talk_.emplace(call);
    }
    ProgramEnd end = talk_->ask(command + "\n" + mark_, mark_);
    std::string &answer = end.output;
    if (answer.ends_with(mark_)) { // behind the prompt
        answer.erase(answer.rfind('\n', answer.size() - mark_.size()) + 1);
    } else {
        talk_.reset();
    }
    const std::size_t at = answer.find(command + "\n");
    answer.erase(0, at == std::string::npos ? 0 : at + command.size() + 1);
    // It says so of a command that it knows but could not execute, too.
    const std::string unknown = "% Unknown command: " + command + "\n";
    if (answer.ends_with(unknown)) {
        answer.resize(answer.size() - unknown.size());
        end.complaint = end.complaint.empty() ? unknown : end.complaint;
    }
    end = plain(call, std::move(end));
    if (!talk_ && end.complaint.empty()) {
        end.complaint = failure_of(call, end);
    }
    return end;
}

// Why vtysh has not taken all lines of a text. "line 3: Failure to communicate[13] to bgpd, line:
// router bgp 65003" says that bgpd refuses the line; the reason is on standard output.
std::string refusal_of(const ProgramEnd &end) {
    constexpr std::string_view failure = ": Failure to communicate[";
    constexpr std::string_view before_line = ", line:";
    const std::string &complaint = end.complaint;
    const std::size_t at = complaint.find(failure);
    const std::size_t line = complaint.find(before_line);
    if (at == std::string::npos || line == std::string::npos) {
        return complaint;
    }
    const std::string why = plain(first_line(end.output));
    return complaint.substr(0, at) + ": " + (why.empty() ? "refused" : why) + ": " +
           std::string(trimmed(std::string_view(complaint).substr(line + before_line.size())));
}

// Throws if vtysh has not taken all lines of a text.
void FrrBackend::require_taken(const ProgramEnd &end) const {
    if (end.exit_status == 0) {
        return;
    }
    const std::string reason = refusal_of(end);
    if (!reason.starts_with("line ")) {
        throw std::runtime_error(vtysh_[0] + ": " + reason);
    }
    throw ConfigurationError(ConfigurationError::Kind::bad_line, reason);
}

// What vtysh shows at a command.
ProgramEnd FrrBackend::shown_at(const std::string &command) {
    ProgramEnd end = ask(command);
    if (end.exit_status != 0) {
        throw std::runtime_error(vtysh_[0] + ": " + end.complaint);
    }
    if (!talk_) {
        throw std::runtime_error(vtysh_[0] + std::string(no_whole_configuration));
    }
    return end;
}

// Throws if watchfrr does not say that all of them work: FRR shows and writes no statement of a
// daemon that does not answer.
Texts FrrBackend::working_daemons() {
    // A line of two blanks, name and state for each daemon.
    const ProgramEnd states = shown_at("show watchfrr");
    Texts daemons;
    for (const std::string_view line : lines_of(states.output)) {
        const auto words = words_of(line);
        if (!line.starts_with("  ") || words.size() < 2) {
            continue;
        }
        if (words[1] != "Up") {
            throw std::runtime_error("FRR's " + std::string(words[0]) +
                                     " does not work: watchfrr says " + std::string(words[1]));
        }
        daemons.emplace(words[0].substr(0, words[0].find('-')));
    }
    if (daemons.empty()) {
        throw std::runtime_error(
            vtysh_[0] + ": " +
            (states.complaint.empty() ? plain(first_line(states.output)) : states.complaint));
    }
    return daemons;
}

// Without the last line, as in the startup configuration.
std::string FrrBackend::running() {
    constexpr std::string_view finish = "\nend\n";
    std::string shown = shown_at("show running-config no-header").output;
    const std::size_t at =
        shown.starts_with(frr_header) ? 0 : shown.find("\n" + std::string(frr_header)) + 1;
    if (!shown.ends_with(finish) || (at == 0 && !shown.starts_with(frr_header))) {
        throw std::runtime_error(vtysh_[0] + std::string(no_whole_configuration));
    }
    shown = shown.substr(at, shown.size() - at - (finish.size() - 1));
    (void)legible(shown); // throws if it is none
    return shown;
}

// What would have to be executed to make the running configuration the wanted one; empty if it is
// that. Throws if the wanted one is not understood.
std::string FrrBackend::difference(const std::string &wanted) const {
    // It takes a text on standard input for an empty configuration.
    const NamedText file(wanted_file_, wanted);
    const ProgramEnd end =
        run(reload_,
            {"--test", "--stdout", "--log-level", "error", "--bindir",
             std::filesystem::path(vtysh_[0]).parent_path(), "--confdir",
             startup_.file().parent_path(), "--rundir", wanted_file_.parent_path(), file.name()},
            {});
    if (end.exit_status != 0 || !end.complaint.empty()) {
        throw std::runtime_error(reload_[0] + ": " + end.complaint);
    }
    std::string result;
    bool is_inner = false;
    for (const std::string_view line : lines_of(end.output)) {
        const std::string_view words = trimmed(line);
        if (words.empty() || words.starts_with("===") || words == "Lines To Delete" ||
            words == "Lines To Add" || words.starts_with("hostname ") ||
            words.starts_with("no hostname ")) { // which vtysh takes from the system
            continue;
        }
        const bool is_outermost = words.data() == line.data();
        if (is_outermost && is_inner) {
            result += "end\n"; // the words may mean something else in the context before
        }
        is_inner = !is_outermost;
        result.append(line).append("\n");
    }
    return result;
}

// FRR removes some statements only without their value, as `no description`: a line that did not
// remove its statement loses a word at each attempt.
std::string shortened(std::string_view line, std::size_t words) {
    std::string result(line.substr(0, line.find_last_not_of(" \t") + 1));
    for (; words > 0 && words_of(result).size() > 2; --words) {
        result.resize(result.find_last_of(" \t"));
    }
    return result;
}

void FrrBackend::replace(std::string_view text) {
    constexpr int most_rounds = 8;
    rest(); // that vtysh may show what it keeps for itself
    complaints_.clear();
    const std::string wanted = legible(text);
    Texts kept; // what may not be removed
    for (const Statement &statement : statements_of(wanted)) {
        if (statement.is_outermost) {
            kept.insert(statement.text);
        }
    }
    std::string former;
    std::string complaint;
    std::size_t failures = 0;
    for (int attempt = 0;; ++attempt) {
        const std::string lines = difference(wanted);
        if (lines.empty()) {
            return;
        }
        const auto statements = statements_of(lines);
        failures = lines == former ? failures + 1 : 0;
        const bool has_removal =
            std::any_of(statements.begin(), statements.end(), std::mem_fn(&Statement::is_negated));
        if (attempt == most_rounds || (failures > 0 && (complaint.empty() || !has_removal))) {
            const auto daemons = working_daemons();
            for (const Statement &statement : statements_of(wanted)) {
                require_daemon(statement, daemons);
            }
            throw ConfigurationError(
                ConfigurationError::Kind::bad_line,
                "FRR can't run exactly this text: it does not take '" + statements.back().text +
                    "'" + (complaint.empty() ? "; write it as FRR shows it" : ": " + complaint));
        }
        for (const Statement &statement : statements) {
            if (statement.is_outermost && statement.is_negated() &&
                kept.contains(statement.subject())) {
                throw std::runtime_error(reload_[0] + " would remove '" +
                                         std::string(statement.subject()) +
                                         "', which the text contains");
            }
        }
        std::string script;
        for (const std::string_view line : lines_of(lines)) {
            const bool is_removal = trimmed(line).starts_with("no ");
            script.append(is_removal ? shortened(line, failures) : std::string(line)).append("\n");
        }
        const ProgramEnd end = vtysh({"-f", "/dev/stdin"}, script);
        complaint = end.exit_status == 0 ? "" : refusal_of(end);
        if (complaint.starts_with("line ")) { // of the script
            complaint.erase(0, complaint.find(": ") + 2);
        }
        former = lines;
    }
}

// Throws if FRR's shell would keep a statement for itself, until it ends: it would then show it.
void FrrBackend::require_effect(std::string_view text, std::string_view shown) {
    Texts known;
    for (Statement &statement : statements_of(shown)) {
        known.insert(std::move(statement.text));
    }
    for (const Statement &statement : statements_of(text)) {
        const bool is_shown = known.contains(statement.subject());
        if (is_shown == statement.is_negated() && owner_of(statement) == shell) {
            refuse(statement.line,
                   "FRR's shell keeps '" + statement.text + "' for itself, so it has no effect");
        }
    }
}

// A statement is in force if FRR shows it. FRR shows many in another form, or not at all if they
// are the default; such a one is in force if the daemon that takes it runs, which has not refused
// it then.
void FrrBackend::verify(std::string_view text) {
    const Texts daemons = working_daemons();
    Texts shown;
    Texts outermost;
    for (Statement &statement : statements_of(running())) {
        if (statement.is_outermost) {
            outermost.insert(statement.text);
        }
        shown.insert(std::move(statement.text));
    }
    const auto statements = statements_of(text);
    std::map<std::string, std::size_t, std::less<>> last; // the line where it is for the last time
    for (const Statement &statement : statements) {
        last[statement.text] = statement.line;
    }
    std::size_t not_removed = 0;
    const Statement *hidden = nullptr;
    for (const Statement &statement : statements) {
        if (shown.contains(statement.text)) {
            continue;
        }
        if (statement.is_negated()) {
            const std::string removed(statement.subject());
            const auto again = last.find(removed);
            if (statement.is_outermost && outermost.contains(removed) &&
                (again == last.end() || again->second < statement.line)) {
                refuse(statement.line, "FRR still shows '" + removed + "'");
            }
            ++not_removed;
            continue;
        }
        const std::string_view owner = owner_of(statement);
        if (!owner.empty() && !daemons.contains(owner)) {
            refuse(statement.line, std::string(owner) + " does not run, so FRR has ignored '" +
                                       statement.text + "'");
        }
        hidden = hidden == nullptr ? &statement : hidden;
    }
    // Each complaint may be about something that was to be removed and did not exist.
    if (hidden != nullptr && complaints_.size() > not_removed) {
        refuse(hidden->line, complaints_.front() + ": " + hidden->text);
    }
}

// Has watchfrr write the file. The result is empty if it says that it has, or else its reason.
// Throws if there is no answer: FRR may go on.
std::string FrrBackend::refusal_to_write() {
    constexpr std::chrono::milliseconds pause{20};
    const auto deadline = std::chrono::steady_clock::now() + time_limit_;
    for (;;) {
        const ProgramEnd end = shown_at("write integrated");
        std::string reason = end.complaint;
        for (const std::string_view line : lines_of(end.output)) {
            if (line == "[OK]") {
                return {};
            }
            if (reason.empty() && line.starts_with("% ")) {
                reason = plain(line);
            }
        }
        // For another shell, or for a process of ours that was killed.
        const bool is_busy = reason.find("already in progress") != std::string::npos;
        if (!is_busy || std::chrono::steady_clock::now() >= deadline) {
            return reason.empty() ? "watchfrr does not say that it has" : reason;
        }
        std::this_thread::sleep_for(pause);
    }
}

void FrrBackend::save(const std::function<void()> &before_commit) {
    (void)working_daemons();
    const bool space_was_scarce = startup_.space_is_scarce();
    startup_.begin_save();
    try {
        before_commit();
    } catch (...) {
        if (!startup_.is_torn(startup_.stored())) { // by an earlier save
            startup_.end_save();
        }
        throw;
    }
    const std::string name = startup_.file().string();
    const std::string mark = mark_of(name);
    std::string reason = refusal_to_write();
    if (reason.empty() && mark_of(name) == mark) {
        reason = "the file is still the former one";
    }
    const auto file = startup_.stored();
    const bool looks_torn = startup_.is_torn(file);
    bool is_saved = reason.empty() && file;
    // FRR says [OK] on a full disk, too. To be shown the configuration takes as long as the save.
    if (is_saved && (looks_torn || space_was_scarce || startup_.space_is_scarce())) {
        is_saved = file->text == show_running();
    }
    if (!is_saved && looks_torn) {
        throw std::runtime_error("FRR has written only a part of " + name +
                                 (reason.empty() ? "" : " (" + reason + ")") +
                                 "; the former one is " + startup_.replaced_file().string());
    }
    startup_.end_save();
    if (!is_saved) {
        throw std::runtime_error(
            "FRR has not saved " + name + ": " +
            (reason.empty() ? "it differs from the running configuration" : reason));
    }
    (void)working_daemons(); // still
}

} // namespace

std::unique_ptr<DeviceBackend> make_frr_backend(const std::filesystem::path &directory) {
    return std::make_unique<FrrBackend>(directory);
}

} // namespace ulmo
