// SPDX-License-Identifier: GPL-3.0-or-later
#include "event/transport/transport.h"

#include <cstdio>
#include <iterator>

#include "event/transport/ipc_storage.h"

namespace event::transport {

namespace {

constexpr unsigned int kRingBytes = 65536;

constexpr const char* s_kTransportNames[] = {
    "F2140CCE_B516_4c39_8799_E3580C967AAD", "C7C7E1FD_88D0_4569_94BE_61AABCFF8A38",
    "DB821E0F_23A1_478d_B76D_4B6808393975", "7DA27024_C46E_489d_9BBC_78883B4BB5F8",
    "F70AB19C_583F_4570_932F_88EF370C9835", "BA5DF202_F03B_4c95_BD94_4DFA0AB8F018",
    "70573FAC_8E7A_4e48_B023_CFD1E44FB102", "CAAC05E4_E87B_452b_84F8_098CF12A3E7D",
    "B623EBE4_D71C_474e_9A1F_BB223F6EA688", nullptr,
};
static_assert(std::size(s_kTransportNames) == kTransportNone + 1);

} // namespace

bool TransportEndpointExists(ETransport transport)
{
    const char* transportName = s_kTransportNames[transport];
    if (transportName == nullptr)
        return false;
    char name[512] = {};
    std::snprintf(name, sizeof(name), "Local\\mem_%s", transportName);
    const IpcStorage probe(kRingBytes, name, true);
    return probe.good();
}

} // namespace event::transport
