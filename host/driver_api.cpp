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
    resolve(lib, "intf_getProtocolType", api.getProtocolType, missing);
    resolve(lib, "intf_getVersion", api.getVersion, missing);
    resolve(lib, "intf_getDriverParameter", api.getDriverParameter, missing);
    resolve(lib, "intf_getDriverPropertyPage", api.getDriverPropertyPage, missing);
    resolve(lib, "intf_SetDriverPropertyPage", api.setDriverPropertyPage, missing);
    resolve(lib, "intf_setAddrValueChangeCallBack", api.setAddrValueChangeCallBack, missing);
    resolve(lib, "intf_getRegListByType", api.getRegListByType, missing);
    resolve(lib, "intf_getRegDiscription", api.getRegDiscription, missing);
    resolve(lib, "intf_initProperty", api.initProperty, missing);
    resolve(lib, "intf_checkAddrValidity", api.checkAddrValidity, missing);
    resolve(lib, "intf_checkAddr", api.checkAddr, missing);
    resolve(lib, "intf_multiCopy", api.multiCopy, missing);
    resolve(lib, "intf_addrMerge", api.addrMerge, missing);
    resolve(lib, "intf_setRcpAddress", api.setRcpAddress, missing);
    resolve(lib, "intf_addConditionRead", api.addConditionRead, missing);
    resolve(lib, "intf_getSendFrame", api.getSendFrame, missing);
    resolve(lib, "intf_dealRcvFrame", api.dealRcvFrame, missing);
    resolve(lib, "intf_getData", api.getData, missing);
    resolve(lib, "intf_setData", api.setData, missing);
    api.driver = reinterpret_cast<Protocol *>(lib.resolve("driver"));
    if (!api.driver)
        missing << QStringLiteral("driver");
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

Properties parseProperties(const QString &text)
{
    Properties p;
    const QStringList parts = text.split(QLatin1Char('#'));
    if (parts.size() < 5)
        return p;
    p.driverId = parts[0].toInt();
    p.localWriteOnly = parts[1].toInt();
    p.retryTimes = parts[3].toInt();
    p.maxPacketLen = parts[4].toInt();
    return p;
}

} // namespace xbchost
