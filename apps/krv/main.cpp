// SPDX-License-Identifier: GPL-3.0-or-later
#include <CLI/CLI.hpp>

#include <cstdio>
#include <exception>
#include <iostream>

#include "apps/krv/command.h"

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

int run(int argc, char** argv)
{
    CLI::App program("Corrects audio files through filter documents, and tells about filters.", "krv");
    program.set_version_flag("--version", "krv " KRV_VERSION);
    addCommands(program);
    for (CLI::App* command : program.get_subcommands({}))
        command->set_version_flag("--version", "krv " KRV_VERSION);
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
        return fail(krv::kExitUsage, std::string(error.what()) + " (see krv --help)");
    }
    if (program.get_subcommands().empty())
        return fail(krv::kExitUsage, "a command is needed (see krv --help)");
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
