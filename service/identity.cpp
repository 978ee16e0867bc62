// Identity and property calls: what the driver is and the runtime's settings.
#include "service.h"

#include <QStringList>

void intf_getProtocolType(int &type)
{
    type = 0;
}

QString intf_getVersion()
{
    return PROCOTOL_VERSION;
}

void intf_getDriverParameter(QString &param)
{
    QStringList names;
    {
        DriverCall call;
        names = QStringList(driver.regNameList);
    }
    param = QString::fromLatin1("%1,%2,%3,%4,%5,%6,%7")
                .arg(QString::number(0), PROCOTOL_DEFALT_COM_PAR, QString::number(0),
                     QString::number(1), PROCOTOL_DEFALT_IP_PAR, PROCOTOL_NAME,
                     names.join(QLatin1Char(',')));
}

void intf_getDriverPropertyPage(QString &page)
{
    page = PROCOTOL_PAR_HMI_SET_MODE;
}

void intf_SetDriverPropertyPage(const QString &page)
{
    DriverCall call;
    driver.propertyPage = page;
}

void intf_setAddrValueChangeCallBack(AddrValueChangeCallBack callBack)
{
    DriverCall call;
    driver.addrValueChangeCallBack = callBack;
}

int intf_getRegListByType(int type, QList<QString> &names)
{
    for (int i = 0; i < REG_COUNT; ++i) {
        const int dataBits = registerOf(REG_LIST[i]).dataBits;
        if ((type == 0 && dataBits == 1) || (type != 0 && dataBits > 1))
            names.append(REG_LIST[i]);
    }
    return unsigned(type) <= 1u ? 1 : 0;
}

static QString widthCode(const QString &dataBits)
{
    if (dataBits == QLatin1String("1"))
        return QString::fromLatin1("0");
    if (dataBits == QLatin1String("32"))
        return QString::fromLatin1("2");
    return QString::fromLatin1("1");
}

static QString accessCode(const QString &access)
{
    if (access == QLatin1String("R"))
        return QString::fromLatin1("0");
    if (access == QLatin1String("W"))
        return QString::fromLatin1("2");
    return QString::fromLatin1("1");
}

int intf_getRegDiscription(const QString &regName, QList<QString> &items)
{
    const int index = getIndexFromRegName(regName);
    if (index < 0)
        return 0;
    const QString *row = ADDRESS_RANGE_PRO[index];
    items << row[COL_FORMAT] << row[COL_MIN] << row[COL_MAX] << widthCode(row[COL_DATA_BITS])
          << accessCode(row[COL_ACCESS]);
    return 0;
}

// With fewer than five parts the numbers stay as they were.
static void takePropertyNumbers(const char *properties)
{
    PropertyNumbers numbers;
    if (parsePropertyString(QString::fromLatin1(properties ? properties : ""), numbers) ==
        PROPERTIES_SHORT)
        return;
    driver.driverId = numbers.driverId;
    driver.localWriteOnly = numbers.localWriteOnly;
    driver.spareParam = numbers.spare;
    driver.retryTimes = numbers.retryTimes;
    driver.maxPacketLen = numbers.maxPacketLen;
}

void resetRun()
{
    driver.readList.clear();
    clearWrites();
    driver.conditionReadList.clear();
    clearDataAreas();
    driver.sendState = SEND_NONE;
    driver.burstCount = 0;
    driver.handShakeRequest = 0;
    driver.failCount = 0;
    driver.commError = 0;
    driver.maxPacketWords = driver.maxPacketLen;
    driver.maxPacketBits = int(8u * quint32(driver.maxPacketLen));
    driver.sendList.clear();
    driverPrivate.inFlight = nullptr;
    driver.initDone = 1;
}

int intf_initProperty(unsigned char *statusBlock, int hostValue, unsigned char *recipeBuffer,
                      int *status, const char *properties, QMutex *hostLock)
{
    DriverCall call;
    if (status != nullptr)
        *status = 0;
    takePropertyNumbers(properties);
    driver.hmiStatusBlock = statusBlock;
    driver.hmiParam = hostValue;
    driver.rcpBuffer = recipeBuffer;
    driver.hmiMutex = hostLock;
    resetRun();
    return 1;
}
