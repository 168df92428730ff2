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

std::string cutReferenceName(std::string_view name)
{
    return cString(name.substr(0, kReferenceNameLength));
}

std::int32_t offsetAsShown(std::int32_t offsetNs)
{
    std::string text = std::to_string(offsetNs);
    if (text.size() <= kOffsetTextLength)
        return offsetNs;
    text.resize(kOffsetTextLength);
    return static_cast<std::int32_t>(std::stol(text));
}

DateTime splitDateTime(std::string_view text)
{
    const auto piece = [text](std::size_t from, std::size_t length) {
        return from < text.size() ? cString(text.substr(from, length)) : std::string();
    };
    return {piece(0, 11), piece(12, 8)};
}

void SharedState::setReference(std::string_view name)
{
    std::string cut = cutReferenceName(name);
    MutexLocker locker(lock_);
    reference_ = std::move(cut);
}

std::string SharedState::reference() const
{
    MutexLocker locker(lock_);
    return reference_;
}

void SharedState::setNow(std::string_view dateTime, std::string_view stamp)
{
    MutexLocker locker(lock_);
    now_ = dateTime;
    stamp_ = stamp;
}

void SharedState::setEvent(std::string_view dateTime, std::string_view stamp)
{
    MutexLocker locker(lock_);
    event_ = dateTime;
    stamp_ = stamp;
}

DateTime SharedState::now() const
{
    std::string copy;
    {
        MutexLocker locker(lock_);
        copy = now_;
    }
    return splitDateTime(copy);
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

std::string SharedState::stamp() const
{
    MutexLocker locker(lock_);
    return stamp_;
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
