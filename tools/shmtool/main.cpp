// shmtool: the operator's view into the shared-memory state store, built on
// the public interface (libshm.h) alone. Command groups live in their own
// files; this one holds the command line and the exit statuses.
#include <cstdio>
#include <exception>
#include <sstream>

#include "common.h"
#include "options.h"

using namespace shmtool;

namespace {

int report(int status, const char* message) {
    std::fflush(stdout);  // what the command printed comes first
    std::fprintf(stderr, "shmtool: %s\n", message);
    return status;
}

// The command a failed parse stopped at, when it names none the tool has:
// the first word that is neither an option nor an option's value.
std::string unknown_command(const CLI::App& app, int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "--") return "";
        if (!word.empty() && word[0] == '-') {
            const CLI::Option* option = app.get_option_no_throw(word.substr(0, word.find('=')));
            if (option != nullptr && option->get_type_size() > 0 && word.find('=') == std::string::npos) ++i;
            continue;
        }
        const auto named = [&word](const CLI::App* sub) { return sub->check_name(word); };
        return app.get_subcommands(named).empty() ? word : "";
    }
    return "";
}

}  // namespace

int main(int argc, char** argv) {
    route_output();
    CLI::App app{"Look into the shared-memory state store and change it by hand.", "shmtool"};
    // Help in the tool's words: every subcommand takes its parent's formatter.
    app.formatter(plain_help_formatter());
    app.footer(
        "Exit status: 0 success, 1 the library (or the system) reported a failure, 2 usage error or bad "
        "input (nothing changed).\nRun 'shmtool COMMAND --help' for a command's arguments.");
    app.set_version_flag("--version", "shmtool " SHMTOOL_VERSION " (" SHMTOOL_LIBRARY ")", "Print the version and exit");
    app.add_flag("--json", g_options.json, "Print the command's result as one JSON document");
    app.add_flag("-v,--verbose", g_options.verbose, "Print the library's messages to stderr, with their levels");
    app.add_flag("--private", g_options.private_store,
                 "Run on a fresh store in a private IPC namespace (needs root or user namespaces)");
    add_lock_wait_options(app);
    add_snapshot_option(app);
    app.require_subcommand(1);
    app.fallthrough();  // global options are accepted after the command too

    add_info_command(app);
    add_dump_commands(app);
    add_view_commands(app);
    add_fru_dimm_commands(app);
    CLI::App* sdc = app.add_subcommand("sdc", "The serial data record ring (section 26)");
    sdc->require_subcommand(1);
    add_sdc_image_commands(*sdc);
    add_sdc_commands(*sdc);
    add_demo_command(app);
    add_watch_command(app);
    add_snapshot_commands(app);
    add_doctor_command(app);

    int status = kOk;
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        // Help and --version succeed, through the same checked stream as a
        // command's output; every other parse error is a usage error, said
        // once, with the tool's prefix, and status 2.
        if (e.get_exit_code() == 0) {
            std::ostringstream out, err;
            app.exit(e, out, err);
            std::fputs(out.str().c_str(), stdout);
            return finish_command(kOk);
        }
        // A value an option refused is reported in the option's words
        // (options.h), wherever the option stood. Only a word the parser
        // could not place, or a missing command, may be a command the tool
        // does not have.
        if (dynamic_cast<const CLI::ValidationError*>(&e) != nullptr)
            return finish_command(report(kUsage, e.what()));
        const bool misplaced = dynamic_cast<const CLI::ExtrasError*>(&e) != nullptr ||
                               dynamic_cast<const CLI::RequiredError*>(&e) != nullptr;
        const std::string command = misplaced ? unknown_command(app, argc, argv) : "";
        const std::string message = command.empty() ? std::string(e.what()) + " (see shmtool --help)"
                                                    : "unknown command '" + command + "' (see shmtool --help)";
        return finish_command(report(kUsage, message.c_str()));
    }
    try {
        check_snapshot_command(app);
        if (g_options.private_store) enter_private_store();
        if (g_options.verbose) install_log_hook();
        run_action();
    } catch (const Error& e) {
        status = report(e.status, e.message.c_str());
    } catch (const std::exception& e) {
        status = report(kFailed, e.what());
    }
    return finish_command(status);
}
