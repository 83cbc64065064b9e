// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <stdexcept>
#include <string>

namespace CLI {
class App;
}

namespace krv {

/// What the program returns to the shell.
enum EExitCode
{
    kExitDone = 0,
    kExitFailed = 1, ///< asked for rightly, could not be done
    kExitUsage = 2   ///< asked for wrongly: an option or argument that cannot mean anything
};

/// Ends a command: main() prints the message as "krv: <message>" on standard error and exits with the code.
/// The message is one sentence without a full stop, names the file or option, and says what would be
/// accepted.
class CCommandError : public std::runtime_error
{
public:
    CCommandError(EExitCode exitCode, const std::string& message)
        : std::runtime_error(message), m_exitCode(exitCode)
    {
    }

    EExitCode exitCode() const { return m_exitCode; }

private:
    EExitCode m_exitCode;
};

/// Each adds one subcommand with its options to the program. The subcommand runs in its CLI11 callback and
/// throws CCommandError when it cannot go on.
void addRenderCommand(CLI::App& program);
void addFiltersCommand(CLI::App& program);
void addInfoCommand(CLI::App& program);
void addBenchCommand(CLI::App& program);
void addIrCommand(CLI::App& program);
void addMicCommand(CLI::App& program);

} // namespace krv
