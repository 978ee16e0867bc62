// The simulator and the dissector keep register tables of their own on purpose
// (each is an independent check of the driver); here each is held against the
// driver's tables, so a register added in one place and forgotten in another fails.
#include "test_support.h"

#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

#include <map>
#include <set>

using namespace xbc_test;

namespace {

// Words of its area a register reaches: its highest address, as words.
int wordsNeeded(const Register &reg)
{
    int highest = 0;
    a2i(ADDRESS_RANGE_PRO[reg.row][COL_MAX], highest, ADDRESS_RANGE_PRO[reg.row][COL_FORMAT],
        REG_LIST[reg.index]);
    return reg.wireBits() ? highest / WIRE_WORD_BITS + 1 : highest + 1;
}

TEST(RegisterTables, SimulatorAreasMatchTheDriver)
{
    std::map<int, int> widest; // area: most words a register of it needs
    for (const QString &name : REG_LIST) {
        SCOPED_TRACE(name.toStdString());
        const Register &reg = *tableRegister(name);
        const int area = xbcsim::areaFromRegister(name);
        ASSERT_GE(area, 0) << "no area in the simulator";
        EXPECT_EQ(xbcsim::areaInfo(area).letter, reg.letter);
        EXPECT_EQ(xbcsim::areaFromLetter(reg.letter), area);
        widest[area] = qMax(widest[area], wordsNeeded(reg));
    }
    EXPECT_EQ(int(widest.size()), int(xbcsim::AREA_COUNT)) << "an area no register uses";
    for (const auto &area : widest)
        EXPECT_EQ(xbcsim::areaInfo(area.first).words, area.second)
            << xbcsim::areaInfo(area.first).name;
}

TEST(RegisterTables, DissectorAreasMatchTheDriver)
{
    QFile file(QFileInfo(QString::fromUtf8(__FILE__)).absolutePath() +
               "/../../tools/wireshark/ls_xbc_cpu_direct.lua");
    ASSERT_TRUE(file.open(QIODevice::ReadOnly)) << file.fileName().toStdString();
    const QString lua = QString::fromUtf8(file.readAll());
    const auto block = [&](const char *table, const char *end) {
        const QString head = QString("local %1 = {").arg(table);
        const int start = lua.indexOf(head) + head.size();
        return start < head.size() ? QString() : lua.mid(start, lua.indexOf(end, start) - start);
    };
    std::map<char, std::set<std::string>> dissector, driver;
    const QRegularExpression row(R"((\w) = \{([^}]*)\})");
    for (auto m = row.globalMatch(block("AREAS", "\n}")); m.hasNext();) {
        const QRegularExpressionMatch r = m.next();
        for (const QString &name : r.captured(2).split(',', Qt::SkipEmptyParts))
            dissector[r.captured(1).at(0).toLatin1()].insert(
                name.trimmed().remove('"').toStdString());
    }
    std::set<char> contacts, dissectorContacts;
    for (const QString &name : REG_LIST) {
        const Register &reg = *tableRegister(name);
        driver[reg.letter].insert(name.toStdString());
        if (reg.contact)
            contacts.insert(reg.letter);
    }
    EXPECT_EQ(dissector, driver);
    for (auto m = QRegularExpression(R"((\w) = true)").globalMatch(block("CONTACT_AREAS", "}"));
         m.hasNext();)
        dissectorContacts.insert(m.next().captured(1).at(0).toLatin1());
    EXPECT_EQ(dissectorContacts, contacts);
}

} // namespace
