#include "state/shared_state.h"

#include <string>

namespace zarvent {

namespace {

// Text up to its first zero byte: what a C string of it holds.
std::string cString(std::string_view text)
{
    return std::string(text.substr(0, text.find('\0')));
}

} // namespace

const char *referenceName(Reference reference)
{
    switch (reference) {
    case Reference::NotYetAsked:
        return "";
    case Reference::SystemPeer:
        return "GPS+GLONASS";
    case Reference::PpsPeer:
        return "GPS+GLONASS 1PPS";
    case Reference::None:
        return "NULL";
    }
    return "";
}

DateTime splitDateTime(std::string_view text)
{
    const auto piece = [text](std::size_t from, std::size_t length) {
        return from < text.size() ? cString(text.substr(from, length)) : std::string();
    };
    return {piece(0, 11), piece(12, 8)};
}

void SharedState::setEvent(std::string_view dateTime)
{
    MutexLocker locker(lock_);
    event_ = dateTime;
}

DateTime SharedState::event() const
{
    std::string copy;
    {
        MutexLocker locker(lock_);
        copy = event_;
    }
    return splitDateTime(copy);
}

void SharedState::setCycleTime(const std::tm &local)
{
    MutexLocker locker(lock_);
    cycleTime_ = local;
}

std::tm SharedState::cycleTime() const
{
    MutexLocker locker(lock_);
    return cycleTime_;
}

} // namespace zarvent
