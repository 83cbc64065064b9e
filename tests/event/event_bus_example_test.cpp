// SPDX-License-Identifier: GPL-3.0-or-later
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <initializer_list>
#include <sstream>
#include <string>
#include <vector>

#include "tests/event/shared_names.h"
#include "tests/support/temp_folder.h"

namespace {

using korvotest::CChild;

/// Replaces the child by one of the example programs, its output going to `output`.
int become(const char* program, const std::string& output, std::vector<std::string> arguments)
{
    if (std::freopen(output.c_str(), "w", stdout) == nullptr)
        return 126;
    std::vector<char*> pointers = {const_cast<char*>(program)};
    for (std::string& argument : arguments)
        pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    execv(program, pointers.data());
    return 127;
}

} // namespace

TEST(EventBusExample, TheServerPrintsWhatTheClientSends)
{
    const korvotest::CSharedNames names;
    const korvotest::CTempFolder folder;
    const std::string output = folder.path() / "server.txt";
    // More notes than the ring holds, so that the client meets a full ring, and one that is too long.
    std::vector<std::string> arguments = {names.prefix()};
    std::string expected;
    for (int i = 0; i < 500; ++i)
        arguments.push_back("note " + std::to_string(i));
    arguments.push_back(std::string(300, 'x'));
    arguments.push_back("bye");
    for (std::size_t i = 1; i < arguments.size(); ++i)
        expected.append(arguments[i], 0, 255).append("\n");

    CChild client(
        [&] { return become(KORVO_EVENT_BUS_CLIENT, "/dev/null", arguments); }); // it waits for its server
    CChild server([&] { return become(KORVO_EVENT_BUS_SERVER, output, {names.prefix()}); });
    EXPECT_EQ(client.wait(std::chrono::seconds(30)), 0);
    EXPECT_EQ(server.wait(std::chrono::seconds(30)), 0);
    std::stringstream printed;
    printed << std::ifstream(output).rdbuf();
    EXPECT_EQ(printed.str(), expected);
    EXPECT_NE(access(("/dev/shm/" + names.prefix() + "_m_8").c_str(), F_OK), 0) << "the ring's name is gone";
}
