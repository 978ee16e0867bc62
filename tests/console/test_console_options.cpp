// The --http and --http-token options: where the console listens and when it
// demands a token. A console reachable from other machines without a token
// would let anyone on the network write to the PLC.
#include "console.h"

#include <gtest/gtest.h>

#include <QRegularExpression>

using xbchost::consoleAddressText;
using xbchost::ConsoleOptions;
using xbchost::parseConsoleOptions;

namespace {

struct Accepted {
    const char *target;
    const char *token;
    const char *address;
    int port;
    bool tokenMade; // a token is made up when none was given
};

class ConsoleOptionsAccepted : public testing::TestWithParam<Accepted> {};

TEST_P(ConsoleOptionsAccepted, Parses)
{
    const Accepted &c = GetParam();
    ConsoleOptions o;
    ASSERT_EQ(parseConsoleOptions(QString::fromLatin1(c.target), QString::fromLatin1(c.token), o),
              QString());
    EXPECT_EQ(o.address, QString::fromLatin1(c.address));
    EXPECT_EQ(o.port, c.port);
    if (c.tokenMade) {
        EXPECT_TRUE(QRegularExpression(QStringLiteral("^[0-9a-f]{32}$")).match(o.token).hasMatch())
            << o.token.toStdString();
    } else {
        EXPECT_EQ(o.token, QString::fromLatin1(c.token));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Targets, ConsoleOptionsAccepted,
    testing::Values(Accepted{"8080", "", "127.0.0.1", 8080, false},
                    Accepted{"0", "", "127.0.0.1", 0, false},
                    Accepted{"127.0.0.1:0", "", "127.0.0.1", 0, false},
                    Accepted{"localhost:9000", "", "127.0.0.1", 9000, false},
                    Accepted{"[::1]:8080", "", "::1", 8080, false},
                    Accepted{"127.0.0.1:8080", "local-token", "127.0.0.1", 8080, false},
                    Accepted{"0.0.0.0:8080", "", "0.0.0.0", 8080, true},
                    Accepted{"192.168.10.5:80", "", "192.168.10.5", 80, true},
                    Accepted{"[::]:8080", "", "::", 8080, true},
                    Accepted{"0.0.0.0:8080", "panel_7.token~A", "0.0.0.0", 8080, false}));

TEST(ConsoleOptions, MadeUpTokensDiffer)
{
    ConsoleOptions a;
    ConsoleOptions b;
    ASSERT_EQ(parseConsoleOptions(QStringLiteral("0.0.0.0:0"), QString(), a), QString());
    ASSERT_EQ(parseConsoleOptions(QStringLiteral("0.0.0.0:0"), QString(), b), QString());
    EXPECT_NE(a.token, b.token);
}

// The address printed at start is one a browser can open: never 0.0.0.0 or ::.
TEST(ConsoleOptions, PrintsAddressesABrowserOpens)
{
    const struct {
        const char *target;
        const char *starts;
        bool allAddresses;
    } cases[] = {{"127.0.0.1:0", "http://127.0.0.1:8080/", false},
                 {"[::1]:0", "http://[::1]:8080/", false},
                 {"192.168.10.5:0", "http://192.168.10.5:8080/?token=", false},
                 {"0.0.0.0:0", "http://127.0.0.1:8080/?token=", true},
                 {"[::]:0", "http://[::1]:8080/?token=", true}};
    for (const auto &c : cases) {
        ConsoleOptions o;
        ASSERT_EQ(parseConsoleOptions(QString::fromLatin1(c.target), QString(), o), QString());
        const QString text = consoleAddressText(o, 8080);
        EXPECT_TRUE(text.startsWith(QLatin1String(c.starts))) << text.toStdString();
        EXPECT_EQ(text.contains(QLatin1String("listening on all addresses")), c.allAddresses);
        EXPECT_FALSE(text.contains(QLatin1String("0.0.0.0")) ||
                     text.contains(QLatin1String("[::]")));
    }
}

struct Refused {
    const char *target;
    const char *token;
    const char *message;
};

class ConsoleOptionsRefused : public testing::TestWithParam<Refused> {};

TEST_P(ConsoleOptionsRefused, SaysWhy)
{
    const Refused &c = GetParam();
    ConsoleOptions o;
    o.port = 1234;
    const QString error =
        parseConsoleOptions(QString::fromLatin1(c.target), QString::fromLatin1(c.token), o);
    EXPECT_TRUE(error.contains(QString::fromLatin1(c.message))) << error.toStdString();
    EXPECT_EQ(o.port, 1234) << "options changed although refused";
}

INSTANTIATE_TEST_SUITE_P(BadInput, ConsoleOptionsRefused,
                         testing::Values(Refused{"", "", "expected [ADDRESS:]PORT"},
                                         Refused{"http", "", "expected [ADDRESS:]PORT"},
                                         Refused{"65536", "", "expected [ADDRESS:]PORT"},
                                         Refused{"-1", "", "expected [ADDRESS:]PORT"},
                                         Refused{"127.0.0.1:", "", "expected [ADDRESS:]PORT"},
                                         Refused{"::1:8080", "", "expected [ADDRESS:]PORT"},
                                         Refused{"plc.example:8080", "", "is not an IP address"},
                                         Refused{"300.1.1.1:80", "", "is not an IP address"},
                                         Refused{":80", "", "is not an IP address"},
                                         Refused{"8080", "short", "--http-token"},
                                         Refused{"8080", "has space in it", "--http-token"},
                                         Refused{"8080", "tok&en=12345", "--http-token"}));

} // namespace
