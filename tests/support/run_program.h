// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/temp_folder.h"

namespace korvotest {

struct SProgramResult
{
    int exitCode = -1; ///< -1 if a signal ended the program
    std::string out;
    std::string err;
};

/// Another program, run to its end by finish().
class CProgram
{
public:
    explicit CProgram(const std::vector<std::string>& command)
    {
        std::vector<char*> arguments;
        for (const std::string& argument : command)
            arguments.push_back(const_cast<char*>(argument.c_str()));
        arguments.push_back(nullptr);
        m_process = fork();
        if (m_process < 0)
            throw std::runtime_error("no process");
        if (m_process == 0)
            become(arguments);
    }
    ~CProgram()
    {
        if (m_process > 0)
            finish();
    }
    CProgram(const CProgram&) = delete;
    CProgram& operator=(const CProgram&) = delete;

    pid_t process() const { return m_process; }

    /// False once it has ended by itself.
    bool isRunning() const
    {
        siginfo_t info{};
        return waitid(P_PID, static_cast<id_t>(m_process), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
               info.si_pid == 0;
    }

    SProgramResult finish()
    {
        int status = 0;
        waitpid(m_process, &status, 0);
        m_process = 0;
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read("out"), read("err")};
    }

private:
    [[noreturn]] void become(const std::vector<char*>& arguments) const
    {
        redirect("out", STDOUT_FILENO);
        redirect("err", STDERR_FILENO);
        execv(arguments[0], arguments.data());
        _exit(127);
    }

    void redirect(const char* name, int descriptor) const
    {
        const int file = open((m_folder.path() / name).c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600);
        dup2(file, descriptor);
        close(file);
    }

    std::string read(const char* name) const
    {
        std::ifstream file(m_folder.path() / name, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    CTempFolder m_folder; ///< for what the program prints
    pid_t m_process = 0;
};

inline SProgramResult runProgram(const std::vector<std::string>& command)
{
    return CProgram(command).finish();
}

} // namespace korvotest
