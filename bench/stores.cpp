#include "stores.h"

const std::vector<const StoreKind*>& storeKinds()
{
    static const std::vector<const StoreKind*> kinds {
        &tuloStore,
#ifdef TULO_BENCH_GSETTINGS
        &gsettingsStore,
#endif
#ifdef TULO_BENCH_KCONFIG
        &kconfigStore,
#endif
        &qsettingsStore,
#ifdef TULO_BENCH_SQLITE
        &sqliteStore,
#endif
#ifdef TULO_BENCH_LMDB
        &lmdbStore,
#endif
    };
    return kinds;
}

const std::vector<Shape>& comparedShapes()
{
    static const std::vector<Shape> shapes { { 1000, 20 }, { 10000, 20 }, { 100000, 20 } };
    return shapes;
}

const std::vector<Shape>& directoryShapes()
{
    static const std::vector<Shape> shapes {
        { 10, 10 }, { 100, 100 }, { 1000, 1000 }, { 10000, 10000 }
    };
    return shapes;
}

std::string storeDirectory(const std::string& work, const StoreKind& kind, const Shape& shape)
{
    return work + "/" + kind.name + "-" + std::to_string(shape.settings) + "-"
        + std::to_string(shape.perDirectory);
}
