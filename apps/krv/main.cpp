// SPDX-License-Identifier: GPL-3.0-or-later
#include <CLI/CLI.hpp>

#include <exception>
#include <iostream>
#include <memory>
#include <string>

#include "apps/krv/command.h"
#include "apps/krv/help_formatter.h"
#include "apps/krv/text.h"

namespace {

int fail(int exitCode, const std::string& message)
{
    std::cout.flush();
    std::cerr << "krv: " << message << '\n';
    return exitCode;
}

/// Standard output may be a file on a full disk as well.
int flushed()
{
    if (!std::cout.flush())
        return fail(krv::kExitFailed, "standard output cannot be written");
    return krv::kExitDone;
}

void addCommands(CLI::App& program)
{
    krv::addRenderCommand(program);
    krv::addInfoCommand(program);
    krv::addFiltersCommand(program);
    krv::addIrCommand(program);
    krv::addMicCommand(program);
    krv::addBenchCommand(program);
}

/// The names of the given commands, as "render, info".
std::string commandNames(const std::vector<CLI::App*>& commands)
{
    std::string names;
    for (const CLI::App* command : commands)
        names += (names.empty() ? "" : ", ") + command->get_name();
    return names;
}

/// CLI11's message in our form where its own would speak of types and counts.
std::string usageMessage(CLI::App& program, const CLI::ParseError& error)
{
    const std::string chosen = commandNames(program.get_subcommands());
    std::string message = error.what();
    const std::string missingValue = ": 1 required ";
    if (dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr)
    {
        const std::string first = krv::inQuotes(program.remaining(true).front());
        if (chosen.empty())
            message = first + " is no command; give one of " + commandNames(program.get_subcommands({}));
        else
            message = first + " is no argument that 'krv " + chosen + "' takes";
    }
    else if (const std::size_t end = message.find(missingValue); end != std::string::npos)
        message = message.substr(0, end) + " needs a value";
    return message + " (see krv " + chosen + (chosen.empty() ? "" : " ") + "--help)";
}

void setUp(CLI::App& command)
{
    command.set_help_flag("-h,--help", "Prints this text");
    command.set_version_flag("--version", "krv " KRV_VERSION, "Prints the version");
    command.group("Commands");
}

int run(int argc, char** argv)
{
    CLI::App program("Corrects audio files through filter documents, and tells about filters.", "krv");
    program.formatter(std::make_shared<krv::CHelpFormatter>());
    addCommands(program);
    setUp(program);
    for (CLI::App* command : program.get_subcommands({}))
        setUp(*command);
    try
    {
        program.parse(argc, argv);
    }
    catch (const CLI::Success& wanted) // --help and --version
    {
        program.exit(wanted);
        return flushed();
    }
    catch (const CLI::ParseError& error)
    {
        return fail(krv::kExitUsage, usageMessage(program, error));
    }
    if (program.get_subcommands().empty())
    {
        return fail(krv::kExitUsage, "a command is needed: " + commandNames(program.get_subcommands({})) +
                                         " (see krv --help)");
    }
    return flushed();
}

} // namespace

int main(int argc, char** argv)
{
    try
    {
        return run(argc, argv);
    }
    catch (const krv::CCommandError& error)
    {
        return fail(error.exitCode(), error.what());
    }
    catch (const std::bad_alloc&)
    {
        return fail(krv::kExitFailed, "out of memory");
    }
    catch (const std::exception& error)
    {
        return fail(krv::kExitFailed, error.what());
    }
}
