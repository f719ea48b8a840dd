#include "trees/treeowner.h"

#include <QFile>

#include <cerrno>

#include <grp.h>
#include <linux/capability.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace tulo {

namespace {

bool hasBecome(uid_t user, gid_t group)
{
    uid_t users[3] = {};
    gid_t groups[3] = {};
    if (::getresuid(&users[0], &users[1], &users[2]) != 0
        || ::getresgid(&groups[0], &groups[1], &groups[2]) != 0)
        return false;
    for (int i = 0; i < 3; ++i) {
        if (users[i] != user || groups[i] != group)
            return false;
    }
    // With the right to change users kept, this would be pretence.
    return ::setresuid(0, 0, 0) != 0;
}

} // namespace

QString userName(uid_t id)
{
    const struct passwd* entry = ::getpwuid(id);
    return entry != nullptr ? QString::fromLocal8Bit(entry->pw_name) : QString::number(id);
}

QString becomeOwner(const QString& writePath)
{
    struct stat tree = {};
    if (::geteuid() != 0 || ::stat(QFile::encodeName(writePath).constData(), &tree) != 0
        || tree.st_uid == 0)
        return QString();

    const auto failure = [&tree, &writePath](const QString& reason) {
        return QStringLiteral("cannot become user '%1', who owns the writable tree '%2': %3")
            .arg(userName(tree.st_uid), writePath, reason);
    };
    const struct passwd* entry = ::getpwuid(tree.st_uid);
    const gid_t group = entry != nullptr ? entry->pw_gid : tree.st_gid;
    // The user last: only root may change the groups.
    if ((entry != nullptr ? ::initgroups(entry->pw_name, group) : ::setgroups(1, &group)) != 0
        || ::setresgid(group, group, group) != 0
        || ::setresuid(tree.st_uid, tree.st_uid, tree.st_uid) != 0)
        return failure(qt_error_string(errno));
    if (!hasBecome(tree.st_uid, group))
        return failure(QStringLiteral("the rights of root are still there"));
    // A mask that keeps the owner out would make files that the owner cannot use.
    ::umask(::umask(0077) & 0077);
    return QString();
}

QString keepRightToChangeOwners()
{
    __user_cap_header_struct header = { _LINUX_CAPABILITY_VERSION_3, 0 };
    __user_cap_data_struct rights[_LINUX_CAPABILITY_U32S_3] = {};
    if (::syscall(SYS_capget, &header, rights) == 0) {
        // A file that runs as its owner loses that with the owner, which is a change of its mode.
        const __u32 kept = rights[0].permitted
            & ((1U << CAP_CHOWN) | (1U << CAP_DAC_OVERRIDE) | (1U << CAP_FOWNER));
        rights[0] = { kept, kept, 0 };
        rights[1] = {};
        // A program that is executed gets none back either.
        if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0
            && ::syscall(SYS_capset, &header, rights) == 0)
            return QString();
    }
    return QStringLiteral("cannot give up the rights of root: ") + qt_error_string(errno);
}

} // namespace tulo
