// Network discovery: the query on the wire, the parsing of the replies' TXT
// records within their length, the manufacturer filter, the device list and
// address map, and the collection over real sockets inside a network namespace
// of this test's own (loopback only; skipped where no namespace can be made).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "NetComm.h"
#include "SaneConfReader.h"
#include "netlab.h"
#include "netns.h"
#include "protocol_testutil.h"
#include "testutil.h"

namespace {

using proto::Bytes;
using proto::hex;

void append(Bytes& b, const std::string& s) { b.insert(b.end(), s.begin(), s.end()); }

// A response (flags 84 00) with one answer <instance>._host-config._udp.local,
// TXT, class IN, TTL 4500, carrying entries; and, when asked, one question first.
Bytes reply(const std::vector<std::string>& entries, const char* secondLabel = "_host-config", unsigned type = 16,
            bool question = false) {
    Bytes b = hex(question ? "0000 8400 0001 0001 0000 0000" : "0000 8400 0000 0001 0000 0000");
    if (question) b.insert(b.end(), {4, 'q', 'u', 'e', 'r', 0, 0, 0x21, 0, 1});
    b.push_back(10);
    append(b, "Quarto5100");
    b.push_back((unsigned char)strlen(secondLabel));
    append(b, secondLabel);
    b.insert(b.end(), {4, '_', 'u', 'd', 'p', 5, 'l', 'o', 'c', 'a', 'l', 0});
    b.insert(b.end(), {0, (unsigned char)type, 0x00, 0x01, 0x00, 0x00, 0x11, 0x94});
    size_t len = 0;
    for (const std::string& e : entries) len += 1 + e.size();
    b.push_back((unsigned char)(len >> 8));
    b.push_back((unsigned char)len);
    for (const std::string& e : entries) {
        b.push_back((unsigned char)e.size());
        append(b, e);
    }
    return b;
}

const char MODEL_5100[] = "MFG:Tarvesk;MDL:Quarto 5100 Ethernet;";

std::vector<std::string> takeNames(char** list, int count) {
    std::vector<std::string> names;
    for (int i = 0; i < count; ++i) {
        names.push_back(list[i] ? list[i] : "(null)");
        free(list[i]);
    }
    free(list);
    return names;
}

}  // namespace

TEST(NetQuery, IsTheFortyOneByteSrvQueryOfTheService) {
    NetComm net;
    unsigned char* packet = nullptr;
    ASSERT_EQ(41, net.createMdnsPacket(&packet));
    Bytes got(packet, packet + 41);
    free(packet);
    EXPECT_EQ(hex("0000 0000 0001 0000 0000 0000"
                  "0c 5f686f73742d636f6e666967 04 5f756470 05 6c6f63616c 00"
                  "0021 0001"),
              got);
}

// A reply written out byte by byte: IPADDRESS and MACUAA in one TXT record.
TEST(NetParse, LiteralReplyGivesAddressAndBitReversedMac) {
    Bytes packet = hex(
        "0000 8400 0000 0001 0000 0000"
        "0a 5175617274 6f35313030 0c 5f686f73742d636f6e666967 04 5f756470 05 6c6f63616c 00"
        "0010 0001 00001194 0029"
        "14 49504144445245535320 3139322e302e322e3130"
        "13 4d4143554141 20 303038304330464631323334");
    NetComm net;
    NValueObjects dev;
    ASSERT_TRUE(net.parsePacket(packet.data(), (int)packet.size(), &dev));
    EXPECT_EQ("192.0.2.10", dev.getIp());
    // 00 80 C0 FF 12 34, each byte's bits reversed.
    EXPECT_EQ("000103FF482C", dev.getMac());
    // Every cut of it ends inside the record: refused, never read past.
    for (size_t n = 13; n < packet.size(); ++n) {
        NValueObjects part;
        EXPECT_FALSE(net.parsePacket(packet.data(), (int)n, &part)) << n;
    }
}

struct TextCase {
    const char* name;
    std::vector<std::string> entries;
    const char* ip;
    const char* mac;
    const char* model;
    const char* manufacturer;
    unsigned vid, pid, family;
};
class NetText : public ::testing::TestWithParam<TextCase> {};

TEST_P(NetText, AppliesEachKey) {
    const TextCase& c = GetParam();
    Bytes packet = reply(c.entries);
    NetComm net;
    NValueObjects dev;
    ASSERT_TRUE(net.parsePacket(packet.data(), (int)packet.size(), &dev));
    EXPECT_EQ(c.ip, dev.getIp());
    EXPECT_EQ(c.mac, dev.getMac());
    EXPECT_EQ(c.model, dev.getModel());
    EXPECT_EQ(c.manufacturer, dev.getManufacturer());
    EXPECT_EQ(c.vid, dev.getVid());
    EXPECT_EQ(c.pid, dev.getPid());
    EXPECT_EQ(c.family, dev.getFamilyId());
}

INSTANTIATE_TEST_SUITE_P(
    Keys, NetText,
    ::testing::Values(
        TextCase{"Quoted", {"IPADDRESS \"192.0.2.7\"", "MACUAA \"0080c0ff1234\""},
                 "192.0.2.7", "000103FF482C", "", "", 0, 0, 0},
        TextCase{"Maker", {std::string("1284STRID ") + MODEL_5100}, "", "", MODEL_5100, "Tarvesk", 0, 0, 0},
        TextCase{"PartnerShortForm", {"1284STRID MFG:VLMSK;MDL:V2 Ethernet;"}, "", "",
                 "MFG:VLMSK;MDL:V2 Ethernet;", "Velmarsk", 0, 0, 0},
        TextCase{"Partner", {"1284STRID \"MFG:Quindorra;MDL:Q9;\""}, "", "", "MFG:Quindorra;MDL:Q9;", "Quindorra", 0,
                 0, 0},
        TextCase{"NoBrand", {"1284STRID MFG:Other;"}, "", "", "MFG:Other;", "Unknown Manufacturer", 0, 0, 0},
        TextCase{"MakerIds", {"PRINTERVIDPID \"2F4A0500\""}, "", "", "", "Tarvesk", 0x2F4A, 0x0500, 0},
        TextCase{"PartnerIds", {"PRINTERVIDPID 3b170101"}, "", "", "", "Velmarsk", 0x3B17, 0x0101, 0},
        TextCase{"OtherIds", {"PRINTERVIDPID 12340001"}, "", "", "", "Manufacturer", 0x1234, 0x0001, 0},
        // The last manufacturer set wins; characters that are no digits count 0.
        TextCase{"IdsAfterModel", {"1284STRID Tarvesk", "PRINTERVIDPID 99zz0001"}, "", "", "Tarvesk",
                 "Manufacturer", 0x9900, 0x0001, 0},
        TextCase{"Family", {"NPA_FAMILYID \"1 107\""}, "", "", "", "", 0, 0, 14},
        TextCase{"OtherFamily", {"NPA_FAMILYID 1 106"}, "", "", "", "", 0, 0, 0},
        // No blank: not a key and value. Short MAC: ignored. Unknown and ignored keys.
        TextCase{"Ignored",
                 {"IPADDRESS192.0.2.9", "MACUAA 0080", "IPNAME host", "ADAPTERNAME \"eth0\"", "FOO bar", ""},
                 "", "", "", "", 0, 0, 0}),
    [](const ::testing::TestParamInfo<TextCase>& i) { return std::string(i.param.name); });

struct PacketCase {
    const char* name;
    Bytes packet;
    bool usable;
    const char* ip;  // after parsing
};
class NetPacket : public ::testing::TestWithParam<PacketCase> {};

TEST_P(NetPacket, IsUsableOnlyWhenWellFormed) {
    const PacketCase& c = GetParam();
    NetComm net;
    NValueObjects dev;
    EXPECT_EQ(c.usable, net.parsePacket(c.packet.data(), (int)c.packet.size(), &dev));
    EXPECT_EQ(c.ip, dev.getIp());
}

Bytes withByte(Bytes b, size_t at, unsigned char v) {
    b[at] = v;
    return b;
}
Bytes cut(Bytes b, size_t n) {
    b.resize(n);
    return b;
}

const std::vector<std::string> IP_ONLY = {"IPADDRESS 192.0.2.3"};

INSTANTIATE_TEST_SUITE_P(
    Shapes, NetPacket,
    ::testing::Values(
        PacketCase{"Plain", reply(IP_ONLY), true, "192.0.2.3"},
        PacketCase{"AfterAQuestion", reply(IP_ONLY, "_host-config", 16, true), true, "192.0.2.3"},
        PacketCase{"TwelveBytes", hex("0000 8400 0000 0001 0000 0000"), false, ""},
        PacketCase{"AQuery", withByte(reply(IP_ONLY), 2, 0x04), false, ""},
        PacketCase{"OtherService", reply(IP_ONLY, "_printer"), true, ""},
        PacketCase{"NotTxt", reply(IP_ONLY, "_host-config", 33), true, ""},
        // The data length claims more than the reply holds.
        PacketCase{"LongTxtLength", withByte(reply(IP_ONLY), 56, 0x01), false, "192.0.2.3"},
        // An entry whose length byte runs past the end.
        PacketCase{"LongEntry", withByte(reply(IP_ONLY), 58, 0xF0), false, ""},
        // A name without its zero byte.
        PacketCase{"UnendedName", cut(reply(IP_ONLY), 45), false, ""},
        // Question count says 3, nothing follows the header.
        PacketCase{"MissingQuestions", withByte(cut(reply(IP_ONLY), 20), 5, 3), false, ""},
        // 65535 answers that are not the service: each only lowers the counter.
        PacketCase{"ManyForeignAnswers", withByte(withByte(reply(IP_ONLY, "_printer"), 6, 0xFF), 7, 0xFF), false,
                   ""}),
    [](const ::testing::TestParamInfo<PacketCase>& i) { return std::string(i.param.name); });

// The parts the table above does not reach: values longer than 64 bits, a
// quote left alone, and a string cut by the end of what was received.
TEST(NetText, HelpersStayWithinWhatTheyAreGiven) {
    EXPECT_EQ(0x123456789ABCDEF0ull, NetComm::hexStringLong("FF123456789ABCDEF0"));
    std::string s = "one\"quote";
    NetComm::removeQuotes(s);
    EXPECT_EQ("", s);
    NetComm net;
    const unsigned char text[] = {5, 'a', 'b', 0, 'c', 'd'};
    unsigned short len = 0;
    EXPECT_EQ("ab", net.extractString(text, 6, len));
    EXPECT_EQ(5, len);
    EXPECT_EQ("a", net.extractString(text, 2, len));
}

struct FilterCase {
    const char* manufacturer;
    const char* model;
    bool listed;
    const char* ip = "192.0.2.1";
    const char* mac = "000103FF482C";
};
class NetFilter : public ::testing::TestWithParam<FilterCase> {};

TEST_P(NetFilter, ListsTheConfiguredManufacturersEthernetModelsWithAddressAndMac) {
    NValueObjects dev;
    dev.setIp(GetParam().ip);
    dev.setMac(GetParam().mac);
    dev.setModel(GetParam().model);
    EXPECT_EQ(GetParam().listed, NetComm::acceptDevice(dev, GetParam().manufacturer));
}

// The text a library named after no brand is configured with: the partner list cut to 31 characters.
const char PARTNERS[] = "Velmarsk,Quindorra,Ostrevin,Bra";

INSTANTIATE_TEST_SUITE_P(
    Manufacturers, NetFilter,
    ::testing::Values(FilterCase{"Tarvesk", "mfg:TARVESK ethernet", false},
                      FilterCase{"Tarvesk", "MFG:TARVESK;MDL:Quarto Ethernet;", true},
                      FilterCase{"Tarvesk", "MFG:Tarvesk;MDL:Quarto 5100 USB;", false},
                      FilterCase{"Velmarsk", "MFG:Quindorra;MDL:Q9 Ethernet;", false},
                      FilterCase{PARTNERS, "MFG:BRNKT;MDL:B1 Ethernet;", true},
                      FilterCase{PARTNERS, "MFG:Quindorra;MDL:Q9;", false},
                      FilterCase{PARTNERS, MODEL_5100, false},
                      // A model that would add pieces to the device name, or garble a listing.
                      FilterCase{"Tarvesk", "MFG:Tarvesk;MDL:Quarto Ethernet/libusb:001:004;", false},
                      FilterCase{"Tarvesk", "MFG:Tarvesk;MDL:Quarto Ethernet;\n", false},
                      FilterCase{"Tarvesk", "MFG:Tarvesk;MDL:Quarto\x7f Ethernet;", false},
                      // No address, no MAC, no model.
                      FilterCase{"Tarvesk", MODEL_5100, false, ""},
                      FilterCase{"Tarvesk", MODEL_5100, false, "192.0.2.1", ""}, FilterCase{"Tarvesk", "", false}));

TEST(NetList, NamesEveryDeviceInOrderAfterThePlaceholderAndMapsItsAddress) {
    NetComm::macToIpMap.clear();
    NetComm net;
    char** list = nullptr;
    int count = -1;
    ASSERT_EQ(0, net.makeDeviceList(true, &list, &count));
    EXPECT_EQ(std::vector<std::string>{"NET_PSEUDO_PLACE_HOLDER::"}, takeNames(list, count));
    ASSERT_EQ(0, net.makeDeviceList(false, &list, &count));
    EXPECT_EQ(0, count);
    EXPECT_EQ(nullptr, list);

    NValueObjects a;
    a.setIp("192.0.2.10");
    a.setMac("000103FF482C");
    a.setModel(MODEL_5100);
    a.setManufacturer("Tarvesk");
    NValueObjects b = a;
    b.setIp("192.0.2.11");
    b.setMac("AA0000000001");
    b.setModel(std::string(300, 'M'));
    net.addDevice(a);
    net.addDevice(b);
    net.addDevice(a);
    ASSERT_EQ(0, net.makeDeviceList(true, &list, &count));
    std::vector<std::string> names = takeNames(list, count);
    ASSERT_EQ(4u, names.size());
    EXPECT_EQ("NET_PSEUDO_PLACE_HOLDER::", names[0]);
    EXPECT_EQ("Tarvesk/MFG:Tarvesk;MDL:Quarto 5100 Ethernet;/libnet:000103FF482C/192.0.2.10", names[1]);
    EXPECT_EQ("Tarvesk/" + std::string(246, 'M'), names[2]) << "cut to the 255-byte buffer";
    EXPECT_EQ(names[1], names[3]);
    EXPECT_EQ("192.0.2.10", NetComm::macToIpMap["libnet:000103FF482C"]);
    EXPECT_EQ("192.0.2.11", NetComm::macToIpMap["libnet:AA0000000001"]);

    // setDevice takes the address from the map, without a query.
    NetComm other;
    char name[] = "libnet:AA0000000001";
    EXPECT_EQ(0, other.setDevice(name));
    EXPECT_STREQ("192.0.2.11", other.getIPAddress());
    EXPECT_EQ(2, other.setDevice(nullptr));
    NetComm::macToIpMap.clear();
}

// ------------------------------------------------------- sockets, namespaced

namespace {

// The simulated network scanner (sim/net) in this process's namespace,
// answering each query with the replies of a scenario.
class Responder {
public:
    explicit Responder(const std::string& scenario) {
        qt::writeFile(dir.file("net.scn"), scenario);
        pid = qt::startNetsim({}, dir.file("net.scn"), dir.file("netsim.log"), &why);
    }
    ~Responder() {
        if (pid > 0) {
            kill(pid, SIGTERM);
            qt::waitProgram(pid, 2);
        }
    }
    bool ok() const { return pid > 0; }
    // The queries it received from port 5353 with exactly the query's bytes.
    int queries() const {
        const std::string log = qt::readFile(dir.file("netsim.log"));
        int n = 0;
        for (size_t at = 0; (at = log.find(":5353 len=41 query=1 ", at)) != std::string::npos; ++at) ++n;
        return n;
    }

    qt::TempDir dir;
    pid_t pid = -1;
    std::string why;
};

// A reply of the scenario for a device, with extra statements, sent delayMs after the one before.
std::string device(const char* ip, const char* mac, const std::string& model, const char* extra = "",
                   int delayMs = 0) {
    return "reply delay=" + std::to_string(delayMs) + "\n  txt IPADDRESS " + ip + "\n  txt MACUAA " + mac +
           "\n  txt 1284STRID " + model + "\n" + extra;
}

}  // namespace

class NetSockets : public ::testing::Test {
protected:
    void SetUp() override {
        std::string why;
        if (!qt::privateNetwork(true, &why)) GTEST_SKIP() << why;
        NetComm::macToIpMap.clear();
        qt::writeFile(dir.file("quarto.conf"), "SHOW_PSEUDO_NETWORK_FLAG=1\nMANUFACTURER=Tarvesk\n");
        ASSERT_EQ(1, conf.LoadConf(dir.file("quarto.conf").c_str()));
    }
    void TearDown() override { NetComm::macToIpMap.clear(); }
    // One collection with its status; the names it lists (none: no list either).
    std::vector<std::string> collect(NetComm& net, int status) {
        char** list = reinterpret_cast<char**>(1);
        int count = 7;
        EXPECT_EQ(status, net.getScanners(&list, &count, &conf));
        if (count == 0) {
            EXPECT_EQ(nullptr, list);
        }
        if (list == reinterpret_cast<char**>(1)) ADD_FAILURE() << "no list handed back";
        return list == reinterpret_cast<char**>(1) ? std::vector<std::string>() : takeNames(list, count);
    }
    qt::TempDir dir;
    SaneConfReader conf;
};

// A front end with many descriptors open (the descriptor limit here is far
// above 1024) gets a discovery socket numbered past what an fd_set holds: the
// collection must still wait on it without writing past any set.
TEST_F(NetSockets, CollectsOnASocketNumberedPastTheSelectLimit) {
    Responder responder(device("192.0.2.10", "0080C0FF1234", MODEL_5100));
    ASSERT_TRUE(responder.ok()) << responder.why;
    const int high = FD_SETSIZE + 16;
    struct rlimit limit;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    if (limit.rlim_cur < (rlim_t)high + 8) {
        if (limit.rlim_max < (rlim_t)high + 8) GTEST_SKIP() << "the descriptor limit is below " << high + 8;
        limit.rlim_cur = (rlim_t)high + 8;
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    }
    // Every free number up to high is taken, so the next socket gets one above.
    std::vector<int> fillers;
    for (int fd = 0; fd < high && (fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;) fillers.push_back(fd);
    NetComm net;
    const std::vector<std::string> names = collect(net, 0);
    for (int fd : fillers) close(fd);
    EXPECT_EQ((std::vector<std::string>{"NET_PSEUDO_PLACE_HOLDER::",
                                        "Tarvesk/MFG:Tarvesk;MDL:Quarto 5100 Ethernet;/libnet:000103FF482C/192.0.2.10"}),
              names);
}

// A device name nobody listed in this process is looked up by one query; the
// first reply whose MAC occurs in the name gives the address at once.
TEST_F(NetSockets, SetDeviceLooksAnUnknownNameUp) {
    Responder responder(device("192.0.2.20", "300000000000", MODEL_5100) +
                        device("192.0.2.21", "0080C0FF1234", MODEL_5100));
    ASSERT_TRUE(responder.ok()) << responder.why;
    NetComm net;
    char name[] = "libnet:000103FF482C";
    auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(0, net.setDevice(name));
    EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), 2.0);
    EXPECT_STREQ("192.0.2.21", net.getIPAddress());
    // The placeholder is never looked up.
    NetComm pseudo;
    char placeholder[] = "libnet:SPECIFY_DEVICE";
    ASSERT_EQ(0, pseudo.setDevice(placeholder));
    EXPECT_STREQ("", pseudo.getIPAddress());
    EXPECT_EQ(1, responder.queries());
}

TEST_F(NetSockets, PortTakenGivesOneAndNoRouteGivesNinetyNine) {
    int holder = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(5353);
    ASSERT_EQ(0, bind(holder, reinterpret_cast<sockaddr*>(&a), sizeof(a)));
    NetComm net;
    EXPECT_TRUE(collect(net, 1).empty());
    close(holder);

    ASSERT_TRUE(qt::privateNetwork(false));
    EXPECT_EQ(std::vector<std::string>{"NET_PSEUDO_PLACE_HOLDER::"}, collect(net, 99));
    char name[] = "libnet:000103FF482C";
    EXPECT_EQ(0, net.setDevice(name));
    EXPECT_STREQ("", net.getIPAddress());
}
