// DNS messages put together by hand: what real servers send, and what nobody should.

#include "engine/dns_answers.h"

#include <gmock/gmock.h>

#include <QByteArray>
#include <QByteArrayList>

#include <string>
#include <utility>
#include <vector>

namespace ruvo {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr int addressType = 1;
constexpr int aliasType = 5;
constexpr int ipv6Type = 28;

QByteArray two(int value)
{
    const char bytes[] = {static_cast<char>(value >> 8), static_cast<char>(value)};
    return QByteArray(bytes, 2);
}

/// "www.example.com" as labels.
QByteArray labels(const QByteArray &name)
{
    QByteArray bytes;
    for (const QByteArray &label : name.split('.')) {
        bytes += static_cast<char>(label.size());
        bytes += label;
    }
    return bytes + '\0';
}

/// A compression pointer.
QByteArray pointer(qsizetype offset)
{
    return two(0xc000 | static_cast<int>(offset));
}

const QByteArray toTheQuestion = pointer(12);

QByteArray header(int questions, int answers, int flags = 0x8180)
{
    return two(0x1234) + two(flags) + two(questions) + two(answers) + two(0) + two(0);
}

QByteArray question(const QByteArray &name, int type = addressType, int nameClass = 1)
{
    return name + two(type) + two(nameClass);
}

QByteArray record(const QByteArray &name, int type, const QByteArray &data, unsigned timeToLive = 300,
                  int recordClass = 1)
{
    return name + two(type) + two(recordClass) + two(static_cast<int>(timeToLive >> 16))
           + two(static_cast<int>(timeToLive & 0xffff)) + two(static_cast<int>(data.size())) + data;
}

const QByteArray someAddress = QByteArray::fromHex("5db8d822"); // 93.184.216.34
const QByteArray otherAddress = QByteArray::fromHex("01020304");
const QByteArray someIpv6 = QByteArray::fromHex("26062800022000010248189325c81946");
constexpr Ipv6Bytes someIpv6Bytes = {0x26, 0x06, 0x28, 0x00, 0x02, 0x20, 0x00, 0x01,
                                     0x02, 0x48, 0x18, 0x93, 0x25, 0xc8, 0x19, 0x46};

std::vector<DnsAnswer> parse(const QByteArray &message)
{
    // Of exactly this size: the sanitizer sees a read behind it.
    const std::vector<std::uint8_t> bytes(message.begin(), message.end());
    return parseDnsAnswers(bytes);
}

DnsAnswer ipv4Answer(std::uint32_t address, std::uint32_t timeToLive = 300, const char *name = "example.com")
{
    return {.name = name, .address = address, .timeToLive = timeToLive};
}

/// One question for example.com, and these answers.
QByteArray exampleMessage(const QByteArray &answers, int count = 1)
{
    return header(1, count) + question(labels("example.com")) + answers;
}

TEST(DnsAnswersTest, readsAnAddress)
{
    EXPECT_THAT(parse(exampleMessage(record(toTheQuestion, addressType, someAddress))),
                ElementsAre(ipv4Answer(0x5DB8D822)));
}

TEST(DnsAnswersTest, readsAnIpv6Address)
{
    EXPECT_THAT(
        parse(header(1, 1) + question(labels("example.com"), ipv6Type) + record(toTheQuestion, ipv6Type, someIpv6)),
        ElementsAre(DnsAnswer{.name = "example.com", .address = someIpv6Bytes, .timeToLive = 300}));
}

TEST(DnsAnswersTest, readsEveryAddressInOrder)
{
    EXPECT_THAT(parse(exampleMessage(record(toTheQuestion, addressType, someAddress)
                                         + record(labels("example.com"), addressType, otherAddress),
                                     2)),
                ElementsAre(ipv4Answer(0x5DB8D822), ipv4Answer(0x01020304)));
}

// Applications connect to what is at the end of the chain, and the proxy is to be asked for what they looked up.
TEST(DnsAnswersTest, givesTheEndOfAChainOfAliasesToTheNameThatWasAskedFor)
{
    const QByteArray asked = question(labels("www.example.com"));
    const qsizetype exampleAt = 12 + 4;                     // behind "www"
    const qsizetype firstData = 12 + asked.size() + 2 + 10; // of the first record
    const QByteArray alias = QByteArray("\3cdn", 4) + pointer(exampleAt);
    const QByteArray lastAlias = QByteArray("\1a", 2) + pointer(firstData);
    const qsizetype secondData = firstData + alias.size() + 2 + 10;
    const QByteArray message = header(1, 3) + asked + record(toTheQuestion, aliasType, alias)
                               + record(pointer(firstData), aliasType, lastAlias)
                               + record(pointer(secondData), addressType, someAddress);
    EXPECT_THAT(parse(message), ElementsAre(ipv4Answer(0x5DB8D822, 300, "www.example.com")));
}

TEST(DnsAnswersTest, clampsTheTimeToLive)
{
    const auto timeToLiveOf = [](unsigned value) {
        return parse(exampleMessage(record(toTheQuestion, addressType, someAddress, value))).at(0).timeToLive;
    };
    EXPECT_EQ(timeToLiveOf(0), 60u);
    EXPECT_EQ(timeToLiveOf(59), 60u);
    EXPECT_EQ(timeToLiveOf(60), 60u);
    EXPECT_EQ(timeToLiveOf(61), 61u);
    EXPECT_EQ(timeToLiveOf(86'400), 86'400u);
    EXPECT_EQ(timeToLiveOf(86'401), 86'400u);
    EXPECT_EQ(timeToLiveOf(0xffffffff), 86'400u);
}

TEST(DnsAnswersTest, passesOverRecordsOfOtherTypesClassesAndSizes)
{
    const QByteArray others = record(toTheQuestion, 16, "text") + record(toTheQuestion, addressType, "abc")
                              + record(toTheQuestion, addressType, "abcde") + record(toTheQuestion, addressType, "")
                              + record(toTheQuestion, ipv6Type, someAddress)
                              + record(toTheQuestion, addressType, someIpv6)
                              + record(toTheQuestion, addressType, someAddress, 300, 3); // CHAOS
    EXPECT_THAT(parse(exampleMessage(others + record(toTheQuestion, addressType, otherAddress), 8)),
                ElementsAre(ipv4Answer(0x01020304)));
}

TEST(DnsAnswersTest, readsNoFurtherThanTheAnswerSection)
{
    EXPECT_THAT(parse(exampleMessage(record(toTheQuestion, addressType, someAddress)
                                     + record(toTheQuestion, addressType, otherAddress))),
                ElementsAre(ipv4Answer(0x5DB8D822)));
    EXPECT_THAT(parse(exampleMessage(record(toTheQuestion, addressType, someAddress), 0)), IsEmpty());
}

TEST(DnsAnswersTest, readsOnlyResponsesToOneQuestionOfTheInternet)
{
    const QByteArray answer = record(toTheQuestion, addressType, someAddress);
    const QByteArray asked = question(labels("example.com"));
    EXPECT_THAT(parse(header(1, 1, 0x0100) + asked + answer), IsEmpty()) << "a query";
    EXPECT_THAT(parse(header(0, 1) + asked + answer), IsEmpty());
    EXPECT_THAT(parse(header(2, 1) + asked + asked + answer), IsEmpty());
    EXPECT_THAT(parse(header(0xffff, 0xffff) + asked + answer), IsEmpty());
    EXPECT_THAT(parse(header(1, 1) + question(labels("example.com"), addressType, 3) + answer), IsEmpty());
}

TEST(DnsAnswersTest, keepsWhatStandsBeforeAMessageIsCutOff)
{
    const QByteArray first = exampleMessage(record(toTheQuestion, addressType, someAddress), 2);
    const QByteArray message = first + record(toTheQuestion, addressType, otherAddress);
    for (qsizetype size = 0; size < message.size(); ++size)
        EXPECT_EQ(parse(message.left(size)).size(), size < first.size() ? 0u : 1u) << size;
    EXPECT_EQ(parse(message).size(), 2u);
}

TEST(DnsAnswersTest, doesNotBelieveCounts)
{
    EXPECT_THAT(parse(exampleMessage(record(toTheQuestion, addressType, someAddress), 0xffff)),
                ElementsAre(ipv4Answer(0x5DB8D822)));
}

TEST(DnsAnswersTest, doesNotBelieveTheLengthOfData)
{
    QByteArray longer = record(toTheQuestion, addressType, someAddress);
    longer[longer.size() - 6] = '\xff';
    EXPECT_THAT(parse(exampleMessage(record(toTheQuestion, addressType, otherAddress) + longer, 2)),
                ElementsAre(ipv4Answer(0x01020304)));
}

TEST(DnsAnswersTest, followsNoPointerThatLoopsOrLeadsOutside)
{
    const QByteArray answer = record(toTheQuestion, addressType, someAddress);
    const QByteArray hostile[] = {
        pointer(12),                        // to itself
        pointer(14),                        // to the next one …
        pointer(14) + pointer(12),          // … which leads back
        QByteArray("\1a", 2) + pointer(12), // a name without an end
        pointer(0),                         // into the header
        pointer(0x3fff),                    // behind the message
        QByteArray("\1a", 2) + pointer(0x3fff),
        QByteArray("\1a", 2) + pointer(40), // forward
        QByteArray("\xff", 1),
    };
    for (const QByteArray &name : hostile)
        EXPECT_THAT(parse(header(1, 1) + question(name) + answer), IsEmpty()) << name.toHex().toStdString();
}

// Where a record's name leads does not matter: the address belongs to the name that was asked for.
TEST(DnsAnswersTest, isNotLedAstrayByPointersOfAnswers)
{
    const qsizetype answerAt = exampleMessage({}).size();
    for (const QByteArray &name : {pointer(answerAt), pointer(answerAt + 1), pointer(0), pointer(0x3fff),
                                   QByteArray("\1a", 2) + pointer(answerAt)}) {
        EXPECT_THAT(parse(exampleMessage(record(name, addressType, someAddress))),
                    ElementsAre(ipv4Answer(0x5DB8D822)))
            << name.toHex().toStdString();
    }
}

TEST(DnsAnswersTest, stopsAtALabelThatIsTooLong)
{
    const QByteArray longest(63, 'a');
    const QByteArray answer = record(toTheQuestion, addressType, someAddress);
    EXPECT_THAT(parse(header(1, 1) + question(labels(longest)) + answer),
                ElementsAre(ipv4Answer(0x5DB8D822, 300, longest.constData())));
    EXPECT_THAT(parse(header(1, 1) + question(labels(longest + 'a')) + answer), IsEmpty());
    EXPECT_THAT(parse(header(1, 1) + question(labels(QByteArray(0xbf, 'a'))) + answer), IsEmpty());
    EXPECT_THAT(parse(exampleMessage(record(toTheQuestion, addressType, otherAddress)
                                         + record(labels(longest + 'a'), addressType, someAddress) + answer,
                                     3)),
                ElementsAre(ipv4Answer(0x01020304)));
}

TEST(DnsAnswersTest, knowsNamesOfUpTo253Bytes)
{
    const QByteArray label(49, 'a');
    const QByteArray longest = QByteArrayList{label, label, label, label, label}.join('.') + ".bcd"; // 249 + 4
    ASSERT_EQ(longest.size(), 253);
    const QByteArray answer = record(toTheQuestion, addressType, someAddress);
    EXPECT_THAT(parse(header(1, 1) + question(labels(longest)) + answer),
                ElementsAre(ipv4Answer(0x5DB8D822, 300, longest.constData())));
    EXPECT_THAT(parse(header(1, 1) + question(labels(longest + 'e')) + answer), IsEmpty());
    EXPECT_THAT(parse(header(1, 1) + question(labels(longest + ".e")) + answer), IsEmpty());
}

TEST(DnsAnswersTest, learnsNothingOfTheRoot)
{
    EXPECT_THAT(parse(header(1, 1) + question(QByteArray(1, '\0')) + record(toTheQuestion, addressType, someAddress)),
                IsEmpty());
}

TEST(DnsAnswersTest, takesNoNameThatIsAnotherOneAsText)
{
    const QByteArray answer = record(toTheQuestion, addressType, someAddress);
    for (const char odd : {'.', ' ', '\n', '\0', '\x7f', '\x80', '\xff'}) {
        const QByteArray label = QByteArray("a") + odd + 'b';
        EXPECT_THAT(parse(header(1, 1) + question('\3' + label + labels("com")) + answer), IsEmpty())
            << label.toHex().toStdString();
    }
    EXPECT_THAT(parse(header(1, 1) + question(labels("_dmarc.a-b.Example")) + answer),
                ElementsAre(ipv4Answer(0x5DB8D822, 300, "_dmarc.a-b.Example")));
}

TEST(DnsAnswersTest, takesAtMost256Addresses)
{
    QByteArray answers;
    for (int i = 0; i < 4000; ++i)
        answers += record(toTheQuestion, addressType, two(0x0a00) + two(i));
    const std::vector<DnsAnswer> taken = parse(exampleMessage(answers, 4000));
    ASSERT_EQ(taken.size(), 256u);
    EXPECT_EQ(taken.back(), ipv4Answer(0x0A0000FF));
}

TEST(DnsAnswersTest, learnsNothingOfLessThan13Bytes)
{
    EXPECT_THAT(parse({}), IsEmpty());
    EXPECT_THAT(parse(header(1, 1)), IsEmpty());
    EXPECT_THAT(parse(header(1, 1) + '\0'), IsEmpty());
}

} // namespace
} // namespace ruvo
