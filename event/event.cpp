// SPDX-License-Identifier: GPL-3.0-or-later
#include "event/event.h"

#include <cstdint>

namespace event {

static_assert(sizeof(CEventBase) == 4 && sizeof(unsigned int) == sizeof(std::uint32_t),
              "the identity is the first word of a record, and all that a base adds to one");

unsigned int CEventBase::hash(std::type_info const& type)
{
    const char* name = type.name();
    std::uint32_t value = 0;
    for (const char* c = name; *c != '\0'; ++c)
    {
        // Meant: the factor is the offset basis of FNV and not its prime, and characters are sign-extended.
        value *= 0x811C9DC5U;
        value ^= static_cast<std::uint32_t>(static_cast<signed char>(*c));
    }
    CTypeHolder::instance().try_emplace(value, name);
    return value;
}

const char* CEventBase::GetTypeName() const
{
    return GetTypeNameForId(id);
}

CTypeHolder& CTypeHolder::instance()
{
    static CTypeHolder holder;
    return holder;
}

const char* GetTypeNameForId(unsigned int id)
{
    const CTypeHolder& holder = CTypeHolder::instance();
    const auto entry = holder.find(id);
    return entry != holder.end() ? entry->second : "N/A";
}

} // namespace event
