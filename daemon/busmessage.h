#pragma once

#include <QtGlobal>

#include <memory>

#include <systemd/sd-bus.h>

namespace tulo {

struct MessageUnref
{
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};

/// A reference to a message, to be dropped on the thread of its connection.
using MessagePointer = std::unique_ptr<sd_bus_message, MessageUnref>;

/// About so many bytes do the arguments of `message` take, found without copying them; more than
/// `limit` as soon as it is more. Stops early at arguments that are malformed. Leaves the message
/// to be read from its beginning.
qint64 argumentBytes(sd_bus_message* message, qint64 limit);

} // namespace tulo
