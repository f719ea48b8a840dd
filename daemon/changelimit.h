#pragma once

#include <QMap>
#include <QString>

#include <chrono>
#include <optional>

namespace tulo {

/// How many changes each user of the device may make, so that a program that never stops changing
/// settings does not wear out the storage.
///
/// A user may make so many changes at once, and as many again in each minute, evenly. A request of
/// more changes than that is let through once the user has made none for a minute, and counts in
/// full. What one user does takes nothing from another.
///
/// Keeps what it knows of the last users only, and forgets those first who may make the most
/// changes; of equals those who were not reported, then those with the lowest numbers. A plain
/// data structure; lives on the bus thread.
class ChangeLimit
{
public:
    using Clock = std::chrono::steady_clock;

    static constexpr int maximumPerMinute = 1000000;
    static constexpr int maximumUsers = 1024; ///< that are known at a time

    /// What is too much.
    struct Refusal
    {
        QString message; ///< one line; says when to try again
        bool isNews = false; ///< the first of this user within a minute
    };

    /// Zero: no limit.
    explicit ChangeLimit(int changesPerMinute);

    bool isOn() const { return m_changesPerMinute > 0; }
    /// Counts `changes` that a user asks for, unless they are refused. To be called while isOn(),
    /// with times that do not go back.
    std::optional<Refusal> count(uint user, int changes, Clock::time_point now);
    int userCount() const { return m_users.size(); }

private:
    struct User
    {
        Clock::time_point countedUntil; ///< when all changes that were counted have had their time
        std::optional<Clock::time_point> reported;
    };

    void makeRoom(Clock::time_point now);

    const int m_changesPerMinute;
    QMap<uint, User> m_users;
};

} // namespace tulo
