// SPDX-License-Identifier: GPL-3.0-or-later
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/event/shared_names.h"
#include "tests/support/run_program.h"

TEST(EventBusExample, TheServerPrintsWhatTheClientSends)
{
    const korvotest::CSharedNames names;
    // More notes than the ring holds, so that the client meets a full ring, and one that is too long.
    std::vector<std::string> command = {KORVO_EVENT_BUS_CLIENT, names.prefix()};
    for (int i = 0; i < 500; ++i)
        command.push_back("note " + std::to_string(i));
    command.insert(command.end(), {std::string(300, 'x'), "bye"});
    std::string expected;
    for (std::size_t i = 2; i < command.size(); ++i)
        expected.append(command[i], 0, 255).append("\n");

    korvotest::CProgram client(command); // it waits for its server
    korvotest::CProgram server({"/usr/bin/timeout", "60", KORVO_EVENT_BUS_SERVER, names.prefix()});
    EXPECT_EQ(client.finish().exitCode, 0);
    const korvotest::SProgramResult served = server.finish();
    EXPECT_EQ(served.exitCode, 0);
    EXPECT_EQ(served.out, expected);
    EXPECT_FALSE(std::filesystem::exists("/dev/shm/" + names.prefix() + "_m_8")) << "the ring's name is gone";
}
