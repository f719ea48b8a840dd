// Whatever the reader accepts, the writer writes, and the reader reads as the same again.

#include "fuzzinput.h"

#include "api/core/tulohash.h"
#include "api/core/tulojson.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const QByteArray text(reinterpret_cast<const char*>(data), int(size));
    TuloError error;
    unsigned offset = 0;
    const QVariant value = TuloJson::parse(text, error, &offset);
    TULO_ASSERT(offset <= size);
    if (!error.isEmpty()) {
        TULO_ASSERT(!value.isValid());
        TULO_ASSERT(error.message().startsWith(QLatin1String("line ")));
        return 0;
    }

    const QByteArray written = TuloJson::serialize(value);
    TULO_ASSERT(!written.isNull());
    TULO_ASSERT(QString::fromUtf8(written).toUtf8() == written);
    const QVariant again = TuloJson::parse(written, error, nullptr);
    TULO_ASSERT(error.isEmpty());
    TULO_ASSERT(TuloJson::serialize(again) == written);
    const QString key = QStringLiteral("key");
    TULO_ASSERT(TuloHash({ { key, value } }) == TuloHash({ { key, again } }));
    return 0;
}
