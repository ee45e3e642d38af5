#include "tests/tools/StoragectlFixture.h"

#include <QDateTime>
#include <QJsonDocument>
#include <QJsonObject>

#include <cmath>
#include <cstring>
#include <limits>

namespace {

constexpr char kAnswers[] = "HistoricalData.gaugeData";

QByteArray bytesOf(const Message& message) {
    return QByteArray(message.buffer(), message.length());
}

struct Request {
    QByteArray job;
    int selector;
    int tag;
    QByteArray date;
    QByteArray time;
    QByteArrayList gauges;
};

/// lookup against a daemon that answers with what `values` gives for each gauge.
class LookupCommandTest : public StoragectlFixture {
protected:
    LookupCommandTest() {
        daemon.onOther = [this](const FakeTransport::Sent& sent) { take(sent); };
    }

    void take(const FakeTransport::Sent& sent) {
        Message message;
        message.construct(sent.payload.constData(), static_cast<int>(sent.payload.size()));
        ASSERT_EQ(sent.token, "StorageManager.to");
        ASSERT_EQ(message.command(), 230);
        ASSERT_STREQ(message.formatString(), "SiiSSS");
        const Request request{
            message.parameterAsString(0), message.parameterAsInt32(1),
            message.parameterAsInt32(2),  message.parameterAsString(3),
            message.parameterAsString(4), QByteArray(message.parameterAsString(5)).split('\n'),
        };
        requests.append(request);
        if (onRequest) {
            onRequest(request);
        } else {
            answer(request);
        }
    }

    void answer(const Request& request) {
        for (int gauge = 0; gauge < request.gauges.size(); ++gauge) {
            sendValues(request, gauge, values(request, gauge));
        }
        sendEnd(request);
    }

    void sendValues(const Request& request, int gauge, const QList<float>& floats) {
        const QByteArray block(reinterpret_cast<const char*>(floats.constData()),
                               floats.size() * qsizetype{sizeof(float)});
        sendBlock(request, gauge, block);
    }

    void sendBlock(const Request& request, int gauge, const QByteArray& block) {
        Message message;
        message.construct(1, "iiiB", gauge, request.selector, request.tag, block.size(),
                          block.constData());
        daemon.transport().deliver(kAnswers, bytesOf(message));
    }

    void sendEnd(const Request& request) {
        Message message;
        message.construct(0, "iii", request.selector, request.tag,
                          static_cast<int>(startOf(request)));
        daemon.transport().deliver(kAnswers, bytesOf(message));
    }

    static qint64 startOf(const Request& request) {
        return QDateTime::fromString(QString::fromLatin1(request.date + 'T' + request.time + 'Z'),
                                     Qt::ISODate)
            .toSecsSinceEpoch();
    }

    QByteArrayList starts() const {
        QByteArrayList starts;
        for (const Request& request : requests) {
            starts.append(request.date + ' ' + request.time);
        }
        return starts;
    }

    QList<Request> requests;
    std::function<void(const Request&)> onRequest;
    std::function<QList<float>(const Request&, int gauge)> values = [](const Request&, int gauge) {
        QList<float> floats;
        for (int i = 0; i < 30; ++i) {
            floats.append(static_cast<float>(100 * (gauge + 1) + i));
        }
        return floats;
    };
};

TEST_F(LookupCommandTest, HalfAnHourOfTwoGaugesIsATable) {
    EXPECT_EQ(
        run({"lookup", "a", "b", "--from", "2024-05-01T10:00:00", "--to", "2024-05-01T10:01:30"}),
        0);
    EXPECT_EQ(data,
              "time (UTC)                       a                 b\n"
              "2024-05-01 10:00               100               200\n"
              "2024-05-01 10:01               101               201\n");
    ASSERT_EQ(requests.size(), 1);
    EXPECT_EQ(requests[0].job, "");
    EXPECT_EQ(requests[0].selector, 0);
    EXPECT_EQ(requests[0].gauges, QByteArrayList({"a", "b"}));
    EXPECT_TRUE(talk.contains("times are UTC"));
}

TEST_F(LookupCommandTest, WithoutAnEndItIsHalfAnHour) {
    EXPECT_EQ(run({"lookup", "a", "--from", "2024-05-01T10:00:00", "--job", "north"}), 0);
    EXPECT_EQ(starts(), QByteArrayList{"2024-05-01 10:00:00"});
    EXPECT_EQ(requests[0].job, "north");
    EXPECT_EQ(data.count('\n'), 31);
}

TEST_F(LookupCommandTest, HalfHoursAreChainedAndEndAtMidnight) {
    EXPECT_EQ(run({"lookup", "a", "--from", "2024-05-01T23:10:30", "--to", "2024-05-02T00:40:00",
                   "--csv"}),
              0);
    EXPECT_EQ(starts(), QByteArrayList({"2024-05-01 23:10:00", "2024-05-01 23:40:00",
                                        "2024-05-02 00:00:00", "2024-05-02 00:30:00"}));
    const QList<QByteArray> lines = data.trimmed().split('\n');
    ASSERT_EQ(lines.size(), 1 + 91);
    EXPECT_EQ(lines[1], "2024-05-01T23:10:00+00:00,1714605000,a,100,");
    EXPECT_EQ(lines[50], "2024-05-01T23:59:00+00:00,1714607940,a,119,");
    EXPECT_EQ(lines[51], "2024-05-02T00:00:00+00:00,1714608000,a,100,");
    EXPECT_EQ(lines[91], "2024-05-02T00:40:00+00:00,1714610400,a,110,");
}

TEST_F(LookupCommandTest, ZeroMayBeNoSampleAndPastTheLastSampleThereIsNone) {
    values = [](const Request&, int) { return QList<float>{1.5F, 0.0F}; };
    const std::vector<std::string> asked{
        "--json", "lookup", "a", "--from", "2024-05-01T10:00:00", "--to", "2024-05-01T10:02:00"};
    EXPECT_EQ(run(asked), 0);
    const QList<QByteArray> lines = data.trimmed().split('\n');
    ASSERT_EQ(lines.size(), 3);
    EXPECT_EQ(QJsonDocument::fromJson(lines[0])["value"], 1.5);
    EXPECT_TRUE(QJsonDocument::fromJson(lines[0])["note"].isUndefined());
    EXPECT_EQ(QJsonDocument::fromJson(lines[1])["value"], 0);
    EXPECT_EQ(QJsonDocument::fromJson(lines[1])["note"], "0 or no sample");
    EXPECT_TRUE(QJsonDocument::fromJson(lines[2])["value"].isNull());
    EXPECT_EQ(QJsonDocument::fromJson(lines[2])["note"], "no sample");
}

TEST_F(LookupCommandTest, TheTableSaysWhatAZeroMayBe) {
    values = [](const Request&, int) { return QList<float>{0.0F}; };
    EXPECT_EQ(run({"lookup", "a", "--from", "2024-05-01", "--to", "2024-05-01T00:00:59"}), 0);
    EXPECT_TRUE(data.endsWith("2024-05-01 00:00    0 or no sample\n")) << data.toStdString();
}

TEST_F(LookupCommandTest, AValueThatIsNoNumberIsTextInJson) {
    values = [](const Request&, int) {
        return QList<float>{std::numeric_limits<float>::quiet_NaN()};
    };
    EXPECT_EQ(run({"--json", "lookup", "a", "--from", "2024-05-01", "--to", "2024-05-01T00:00:59"}),
              0);
    EXPECT_EQ(QJsonDocument::fromJson(data)["value"], "nan");
}

TEST_F(LookupCommandTest, TheSecondValueIsAskedForBySelector1) {
    EXPECT_EQ(run({"lookup", "a", "--second", "--from", "2024-05-01"}), 0);
    EXPECT_EQ(requests[0].selector, 1);
}

TEST_F(LookupCommandTest, APlotLeavesZerosOutAndSaysSo) {
    values = [](const Request&, int) { return QList<float>{5, 0, 6, 0, 7}; };
    EXPECT_EQ(run({"lookup", "a", "--from", "2024-05-01", "--plot", "--width", "40"}), 0);
    EXPECT_TRUE(data.startsWith("a: first value\n")) << data.toStdString();
    EXPECT_FALSE(data.contains("        0 ┤")) << data.toStdString();
    EXPECT_TRUE(data.contains("0 is left out, it may be no sample."));
}

TEST_F(LookupCommandTest, TagsDifferAndAtMostFourRequestsAreUnderWay) {
    QList<Request> open;
    qsizetype most = 0;
    onRequest = [&](const Request& request) {
        open.append(request);
        most = std::max(most, open.size());
        // Answered out of order, once no other comes.
        if (open.size() == 4) {
            while (!open.isEmpty()) {
                answer(open.takeLast());
            }
        }
    };
    EXPECT_EQ(run({"lookup", "a", "--from", "2024-05-01", "--to", "2024-05-01", "--csv"}), 0);
    EXPECT_EQ(most, 4);
    EXPECT_EQ(requests.size(), 48);
    QSet<int> tags;
    for (const Request& request : std::as_const(requests)) {
        tags.insert(request.tag);
    }
    EXPECT_EQ(tags.size(), 48);
    QByteArrayList lines = data.trimmed().split('\n');
    ASSERT_EQ(lines.size(), 1 + 1440);
    QByteArrayList sorted = lines.mid(1);
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(lines.mid(1), sorted) << "in the order of time";
}

TEST_F(LookupCommandTest, AnUnansweredHalfHourIsAskedAgainUnderANewTag) {
    int ignored = 0;
    onRequest = [&](const Request& request) {
        if (request.time == "00:30:00" && ignored++ < 2) {
            return;
        }
        answer(request);
    };
    EXPECT_EQ(run({"lookup", "a", "--from", "2024-05-01", "--to", "2024-05-01T01:29:59"}), 0);
    QSet<int> tags;
    for (const Request& request : std::as_const(requests)) {
        tags.insert(request.tag);
    }
    EXPECT_EQ(requests.size(), 5);
    EXPECT_EQ(tags.size(), 5);
    EXPECT_EQ(data.count('\n'), 91);
    EXPECT_FALSE(data.contains("not answered"));
}

TEST_F(LookupCommandTest, WhatStaysUnansweredIsReported) {
    onRequest = [&](const Request& request) {
        if (request.time != "00:30:00" && request.time != "01:00:00") {
            answer(request);
        }
    };
    EXPECT_EQ(run({"lookup", "a", "--from", "2024-05-01", "--to", "2024-05-01T01:59:59", "--csv"}),
              3);
    EXPECT_EQ(data.count(",a,,not answered\n"), 60);
    EXPECT_EQ(data.count('\n'), 121);
    EXPECT_TRUE(
        talk.contains("not answered, asked 3 times: 2024-05-01T00:30:00+00:00 to "
                      "2024-05-01T01:29:59+00:00\n"))
        << talk.toStdString();
}

TEST_F(LookupCommandTest, NothingAnsweredIsAFailure) {
    onRequest = [](const Request&) {};
    EXPECT_EQ(run({"--timeout", "1", "lookup", "a", "--from", "2024-05-01"}), 1);
    EXPECT_EQ(requests.size(), 3);
}

TEST_F(LookupCommandTest, DamagedAndForeignAnswersAreNobodys) {
    onRequest = [&](Request request) {
        Request other = request;
        other.tag ^= 1;
        answer(other);
        sendValues(request, 1, {9});
        sendValues(request, -1, {9});
        sendBlock(request, 0, "abc");
        sendBlock(request, 0, QByteArray(124, 'x'));
        sendEnd(request);  // without its values
        daemon.transport().deliver(kAnswers, "");
        daemon.transport().deliver(kAnswers, QByteArray(40, '\xff'));
        Message odd;
        odd.construct(1, "iii", 0, request.selector, request.tag);
        daemon.transport().deliver(kAnswers, bytesOf(odd));
        Request otherStart = request;
        sendValues(request, 0, {4});
        otherStart.date = "2024-05-02";
        sendEnd(otherStart);
        if (requests.size() == 2) {
            answer(request);
        }
    };
    EXPECT_EQ(run({"lookup", "a", "--from", "2024-05-01", "--to", "2024-05-01T00:00:59", "--csv"}),
              0);
    EXPECT_EQ(requests.size(), 2) << "the first was not answered";
    EXPECT_EQ(data, "time,seconds,gauge,value,note\n2024-05-01T00:00:00+00:00,1714521600,a,100,\n");
}

TEST_F(LookupCommandTest, AGaugeWithoutAnySampleIsNamed) {
    values = [](const Request&, int gauge) {
        return gauge == 0 ? QList<float>{1} : QList<float>();
    };
    EXPECT_EQ(run({"lookup", "a", "b", "--from", "2024-05-01", "--job", "north"}), 3);
    EXPECT_TRUE(
        talk.contains("b: no sample in all this time, looked for in "
                      "/root/data/north/gauges/DAY/GAUGE/calcData.gdf"))
        << talk.toStdString();
    EXPECT_EQ(run({"lookup", "b", "--from", "2024-05-01"}), 0);
    values = [](const Request&, int) { return QList<float>(); };
    EXPECT_EQ(run({"lookup", "b", "--from", "2024-05-01"}), 4);
}

TEST_F(LookupCommandTest, NothingIsSentForWhatTheDaemonCouldNotTake) {
    const std::vector<std::vector<std::string>> wrong{
        {"a", "--from", "2024-02-30"},
        {"a", "--from", "2024-05-01T24:00:00"},
        {"a", "--from", "2024-05-01T10:60:00"},
        {"a", "--from", "2024-05-01T10"},
        {"a", "--from", "yesterday"},
        {"a", "--from", ""},
        {"a", "--from", "1969-12-31"},
        {"a", "--from", "2106-03-01"},
        {"a", "--from", "2024-05-02", "--to", "2024-05-01"},
        {"a", "--from", "2024-05-01", "--to", "2024-13-01"},
        {"a", "--from", "2024-05-01", "--job", "../x"},
        {"a/b", "--from", "2024-05-01"},
        {"..", "--from", "2024-05-01"},
        {"a\nb", "--from", "2024-05-01"},
        {"", "--from", "2024-05-01"},
        {"a\xff", "--from", "2024-05-01"},
        {"a"},
        {"--from", "2024-05-01"},
        {"a", "--from", "2024-05-01", "--csv", "--plot"},
    };
    for (std::vector<std::string> arguments : wrong) {
        arguments.insert(arguments.begin(), "lookup");
        EXPECT_EQ(run(arguments), 2) << testing::PrintToString(arguments);
    }
    EXPECT_TRUE(requests.isEmpty());
    EXPECT_TRUE(daemon.requests.empty());
}

TEST_F(LookupCommandTest, WithoutADaemonNothingIsAsked) {
    daemon.fate = [](const Message&) { return FakeDaemon::Fate::LostRequest; };
    EXPECT_EQ(run({"--timeout", "1", "lookup", "a", "--from", "2024-05-01"}), 11);
    EXPECT_TRUE(requests.isEmpty());
}

TEST_F(LookupCommandTest, ABrokerThatStaysAwayEndsIt) {
    onRequest = [&](const Request&) { daemon.transport().setBrokerPresent(false); };
    EXPECT_EQ(run({"--timeout", "1", "lookup", "a", "--from", "2024-05-01"}), 10);
}

TEST_F(LookupCommandTest, AnInterruptEndsItWithWhatThereIs) {
    onRequest = [&](const Request& request) {
        if (request.time == "00:00:00") {
            answer(request);
        } else {
            storagectl::Interrupt::request();
        }
    };
    EXPECT_EQ(run({"lookup", "a", "--from", "2024-05-01", "--to", "2024-05-01", "--csv"}), 130);
    EXPECT_GE(data.count('\n'), 1);
}

}  // namespace
