// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace korvotest {

/// `count` elements at a chosen distance above a 64-byte boundary, between two zones of known bytes: a write
/// outside the elements shows in intact().
template<typename T>
class CGuardedBuffer
{
public:
    explicit CGuardedBuffer(std::size_t count, std::size_t misalignment = 0)
        : m_count(count), m_bytes(kZone + 64 + misalignment + count * sizeof(T) + kZone, kGuard)
    {
        const auto address = reinterpret_cast<std::uintptr_t>(m_bytes.data()) + kZone;
        const std::size_t toBoundary = (64 - address % 64) % 64;
        m_offset = kZone + toBoundary + misalignment;
    }

    explicit CGuardedBuffer(const std::vector<T>& values, std::size_t misalignment = 0)
        : CGuardedBuffer(values.size(), misalignment)
    {
        assign(values);
    }

    CGuardedBuffer(const CGuardedBuffer&) = delete;
    CGuardedBuffer& operator=(const CGuardedBuffer&) = delete;

    /// May be misaligned for T; pass it on, and read elements through get().
    T* data() { return reinterpret_cast<T*>(m_bytes.data() + m_offset); }
    std::size_t size() const { return m_count; }

    T get(std::size_t index) const
    {
        T value;
        std::memcpy(&value, m_bytes.data() + m_offset + index * sizeof(T), sizeof(T));
        return value;
    }

    void set(std::size_t index, T value)
    {
        std::memcpy(m_bytes.data() + m_offset + index * sizeof(T), &value, sizeof(T));
    }

    void assign(const std::vector<T>& values)
    {
        for (std::size_t i = 0; i < std::min(values.size(), m_count); ++i)
            set(i, values[i]);
    }

    std::vector<T> values() const
    {
        std::vector<T> values(m_count);
        for (std::size_t i = 0; i < m_count; ++i)
            values[i] = get(i);
        return values;
    }

    /// True while nothing has written outside the elements.
    bool intact() const
    {
        for (std::size_t i = 0; i < m_bytes.size(); ++i)
        {
            if ((i < m_offset || i >= m_offset + m_count * sizeof(T)) && m_bytes[i] != kGuard)
                return false;
        }
        return true;
    }

private:
    static constexpr std::size_t kZone = 256;
    static constexpr unsigned char kGuard = 0xA5;

    std::size_t m_count;
    std::vector<unsigned char> m_bytes;
    std::size_t m_offset = 0;
};

} // namespace korvotest
