// Loading the driver library and resolving its exported names.
#include "xbc_host.h"

namespace xbchost {

namespace {

template <typename Fn>
void resolve(QLibrary &library, const char *name, Fn &slot, QStringList &missing)
{
    slot = reinterpret_cast<Fn>(library.resolve(name));
    if (!slot)
        missing << QLatin1String(name);
}

} // namespace

bool loadDriver(DriverApi &api, const QString &path, QString *error)
{
    api = DriverApi();
    api.library = std::make_unique<QLibrary>(path);
    if (!api.library->load()) {
        if (error)
            *error = QStringLiteral("cannot load driver library '%1': %2")
                         .arg(path, api.library->errorString());
        api.library.reset();
        return false;
    }
    QLibrary &lib = *api.library;
    QStringList missing;
#define XBC_RESOLVE(name) resolve(lib, "intf_" #name, api.name, missing);
    XBC_FOR_EACH_EXPORTED_FUNCTION(XBC_RESOLVE)
#undef XBC_RESOLVE
    api.driver = reinterpret_cast<Protocol *>(lib.resolve(XBC_EXPORTED_OBJECT));
    if (!api.driver)
        missing << QLatin1String(XBC_EXPORTED_OBJECT);
    if (!missing.isEmpty()) {
        if (error)
            *error = QStringLiteral("driver library '%1' lacks %2: %3")
                         .arg(path,
                              missing.size() == 1 ? QStringLiteral("the symbol")
                                                  : QStringLiteral("the symbols"),
                              missing.join(QStringLiteral(", ")));
        api = DriverApi();
        return false;
    }
    return true;
}

PropertyNumbers parseProperties(const QString &text)
{
    PropertyNumbers numbers;
    parsePropertyString(text, numbers);
    return numbers;
}

} // namespace xbchost
