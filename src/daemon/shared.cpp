#include "daemon/shared.h"

#include <algorithm>
#include <cstring>

namespace zarvent {

SharedState::SharedState() = default;

void SharedState::put(std::size_t pos, std::string_view bytes)
{
    if (pos >= co::kSize)
        return;
    const std::size_t len = std::min(bytes.size(), co::kSize - pos);
    MutexLocker locker(recordLock_);
    std::memcpy(Command_Out + pos, bytes.data(), len);
}

std::string SharedState::get(std::size_t pos, std::size_t len) const
{
    std::string out(len, '\0');
    if (pos >= co::kSize)
        return out;
    const std::size_t have = std::min(len, co::kSize - pos);
    MutexLocker locker(recordLock_);
    std::memcpy(out.data(), Command_Out + pos, have);
    return out;
}

std::string SharedState::text(std::size_t pos, std::size_t max) const
{
    std::string out = get(pos, max);
    out.resize(std::strlen(out.c_str()));
    return out;
}

unsigned char SharedState::byte(std::size_t pos) const
{
    return static_cast<unsigned char>(get(pos, 1)[0]);
}

void SharedState::setByte(std::size_t pos, unsigned char value)
{
    const char c = static_cast<char>(value);
    put(pos, std::string_view(&c, 1));
}

DateTimeSlot SharedState::dateTime(std::size_t pos) const
{
    // One copy of the whole slot: the date and the time always belong to the
    // same event, even when the alarm logic rewrites the slot meanwhile.
    const std::string slot = get(pos, co::kTimeLength);
    DateTimeSlot split{slot.substr(0, 11), slot.substr(12, 8)};
    split.date.resize(std::strlen(split.date.c_str()));
    split.time.resize(std::strlen(split.time.c_str()));
    return split;
}

void SharedState::setTimeinfo(const std::tm &local)
{
    MutexLocker locker(recordLock_);
    timeinfo = local;
}

std::tm SharedState::getTimeinfo() const
{
    MutexLocker locker(recordLock_);
    return timeinfo;
}

} // namespace zarvent
