#include "daemon/changelimit.h"

#include <algorithm>
#include <iterator>
#include <tuple>

namespace tulo {

namespace {

using namespace std::chrono_literals;

constexpr auto window = std::chrono::duration_cast<ChangeLimit::Clock::duration>(1min);

} // namespace

ChangeLimit::ChangeLimit(int changesPerMinute)
    : m_changesPerMinute(changesPerMinute)
{
}

std::optional<ChangeLimit::Refusal> ChangeLimit::count(uint user, int changes,
                                                       Clock::time_point now)
{
    if (!m_users.contains(user))
        makeRoom(now);
    User& known = m_users[user];
    known.countedUntil = std::max(known.countedUntil, now);
    // More than a message holds, and less than overflows.
    const auto timeFor = [this](int count) {
        return window * std::min(count, maximumPerMinute) / m_changesPerMinute;
    };
    const Clock::duration wait =
        known.countedUntil + timeFor(std::min(changes, m_changesPerMinute)) - (now + window);
    if (wait <= Clock::duration::zero()) {
        known.countedUntil += timeFor(changes);
        return std::nullopt;
    }
    const bool isNews = !known.reported || now - *known.reported >= window;
    if (isNews)
        known.reported = now;
    return Refusal { QStringLiteral(
                         "User %1 makes more than %2 changes a minute; try again in %3 s")
                         .arg(user)
                         .arg(m_changesPerMinute)
                         .arg(std::chrono::ceil<std::chrono::seconds>(wait).count()),
                     isNews };
}

void ChangeLimit::makeRoom(Clock::time_point now)
{
    if (m_users.size() < maximumUsers)
        return;
    const auto isIdle = [now](const User& user) {
        return user.countedUntil <= now && (!user.reported || now - *user.reported >= window);
    };
    for (auto user = m_users.begin(); user != m_users.end();)
        user = isIdle(*user) ? m_users.erase(user) : std::next(user);
    if (m_users.size() < maximumUsers)
        return;
    m_users.erase(
        std::min_element(m_users.begin(), m_users.end(), [](const User& left, const User& right) {
            return std::tie(left.countedUntil, left.reported)
                < std::tie(right.countedUntil, right.reported);
        }));
}

} // namespace tulo
