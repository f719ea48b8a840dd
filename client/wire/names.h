#pragma once

#include <tulo/error.h>

#include <QByteArray>
#include <QString>

#include <array>
#include <optional>

// What the settings are called on D-Bus and which messages there are: the one description of the
// interface that the service's dispatch table and the library's calls are made from.

namespace tulo::wire {

inline constexpr const char* busName = "org.tulo.ConfigurationManager1";
inline constexpr const char* objectPath = "/org/tulo/ConfigurationManager1";

// The policy of the bus grants rights by interface.
inline constexpr const char* readInterface = "org.tulo.ConfigurationManager1";
inline constexpr const char* changeInterface = "org.tulo.ConfigurationManager1.Change";
inline constexpr const char* adminInterface = "org.tulo.ConfigurationManager1.Admin";

inline constexpr const char* errorPrefix = "org.tulo.ConfigurationManager1.Error.";

/// The address of the bus "system" or "session", which the environment may name; any other text is
/// an address itself.
QByteArray addressOf(const QString& bus);

/// The full D-Bus name of an error code.
QString errorName(ErrorCode code);
/// The code of an error named on the bus; none when the name is not one of the service's.
std::optional<ErrorCode> errorCodeOf(const char* name);

// ---------------------------------------------------------------------------------------------
// Messages. The names of the arguments stand in a row, inputs first, each ended by a zero
// character, as sd-bus takes them.
// ---------------------------------------------------------------------------------------------

struct Method
{
    const char* interface;
    const char* member;
    const char* in; ///< signature of the arguments
    const char* out; ///< signature of the answer
    const char* names;
};

inline constexpr Method getData { readInterface, "GetData", "sas", "a{sv}",
                                  "path\0roles\0values\0" };
inline constexpr Method getMany { readInterface, "GetMany", "asas", "a(sa{sv})",
                                  "paths\0roles\0nodes\0" };
inline constexpr Method getRows {
    readInterface, "GetRows", "siias", "uia{sv}a(sa{sv})",
    "path\0first\0last\0roles\0rowsCount\0rowsVersion\0directoryRoles\0rows\0"
};
inline constexpr Method getTreeDigest { readInterface, "GetTreeDigest", "", "s", "digest\0" };
/// Each origin is a role and its particulars: layer, state, value, file, line, column, reason.
inline constexpr Method explain { readInterface, "Explain", "s", "a(sa{sv})", "path\0origins\0" };
inline constexpr Method setValue { changeInterface, "SetValue", "sva{sv}", "a{sv}a{sv}",
                                   "path\0value\0options\0stored\0outcome\0" };
inline constexpr Method setRoles { changeInterface, "SetRoles", "sa{sv}a{sv}", "a{sv}a{sv}",
                                   "path\0roles\0options\0stored\0outcome\0" };
inline constexpr Method apply { changeInterface, "Apply", "ssava{sv}", "a{sv}a{sv}",
                                "path\0verb\0operand\0options\0stored\0outcome\0" };
/// Each assignment is a path and the roles to set.
inline constexpr Method setMany { changeInterface, "SetMany", "a(sa{sv})a{sv}", "a(a{sv}a{sv})",
                                  "assignments\0options\0changes\0" };
inline constexpr Method reset { changeInterface, "Reset", "asa{sv}", "as",
                                "paths\0options\0settings\0" };
/// The same with everything below, for which an option "keep" names paths that stay.
inline constexpr Method resetBelow { adminInterface, "Reset", "asa{sv}", "as",
                                     "paths\0options\0settings\0" };
inline constexpr Method flush { changeInterface, "Flush", "", "u", "failed\0" };
inline constexpr Method dropCache { adminInterface, "DropCache", "", "", "" };
inline constexpr Method statistics { adminInterface, "Statistics", "", "a{sv}", "numbers\0" };
inline constexpr Method getUnsaved { adminInterface, "GetUnsaved", "u", "as", "maximum\0paths\0" };

inline constexpr std::array methodTable { getData,    getMany,  getRows,   getTreeDigest,
                                          setValue,   setRoles, apply,     setMany,
                                          reset,      flush,    dropCache, getUnsaved,
                                          resetBelow, explain,  statistics };

struct Signal
{
    const char* interface;
    const char* member;
    const char* signature;
    const char* names;
};

inline constexpr Signal valueChanged { readInterface, "ValueChanged", "sv", "path\0value\0" };
inline constexpr Signal dataChanged { readInterface, "DataChanged", "s", "path\0" };
inline constexpr Signal rowsChanged { readInterface, "RowsChanged", "ssi",
                                      "path\0command\0rowsVersion\0" };

inline constexpr std::array signalTable { valueChanged, dataChanged, rowsChanged };

struct Property
{
    enum class Announced { Never, Changes, Constant };

    const char* interface;
    const char* name;
    const char* signature;
    Announced announced;
};

inline constexpr std::array propertyTable {
    Property { readInterface, "Version", "s", Property::Announced::Constant },
    Property { readInterface, "Product", "s", Property::Announced::Constant },
    Property { readInterface, "DefaultPath", "s", Property::Announced::Constant },
    Property { readInterface, "WritePath", "s", Property::Announced::Constant },
    Property { readInterface, "Writable", "b", Property::Announced::Changes },
    Property { readInterface, "UnsavedCount", "u", Property::Announced::Changes },
    Property { readInterface, "LastWriteError", "s", Property::Announced::Changes },
    Property { readInterface, "PendingWrites", "u", Property::Announced::Never },
};

} // namespace tulo::wire
