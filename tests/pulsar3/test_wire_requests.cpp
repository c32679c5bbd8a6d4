// What travels: every kind of access in both protocols byte by byte, the cutting into requests, what makes no traffic.
#include "pulsar3/lib/wire/access.h"
#include "pulsar3/lib/wire/error.h"
#include "pulsar3/lib/wire/fem.h"
#include "tests/pulsar3/wire_peer.h"

#include <array>
#include <gtest/gtest.h>
#include <numeric>

using namespace kestrel;
using namespace wire_test;

namespace {

using handle = std::unique_ptr<FemHandle>;

handle connect1(const peer &card) {
    return pulsar3FemInitialise("127.0.0.1", card.port(), 0);
}
handle connect2(const peer &card) {
    return pulsar3FemInitialise("127.0.0.1", 0, card.port());
}

const std::array<std::uint32_t, 1> one{0x11223344};
const std::array<std::uint32_t, 5> five{1, 2, 3, 4, 5};
const std::array<std::uint8_t, 3> three{0xA1, 0xA2, 0xA3};
std::uint32_t got;
std::array<std::uint32_t, 2> two;
std::array<std::uint8_t, 3> octets;

struct row {
    const char *what;
    int (*call)(FemHandle &);
    const char *fem1; // the request in hex; "" is refused
    const char *fem2; // sequence number 0
};

// magic | command bus width state | address | payload size | payload, against
// magic | sequence | command bus width state | address | items | payload size | extras | payload
const row rows[] = {
    {"SetInt", [](FemHandle &h) { return pulsar3FemSetInt(h, 2, 1, 3, 0x11223344); },
     "DEADBEEF 01030302 A084000C 00000004 11223344",
     "EFBEADDE 00000000 03010300 0C008400 01000000 44332211 00000000 00000000 00000000"},
    {"GetInt", [](FemHandle &h) { return pulsar3FemGetInt(h, 15, 15, 9, got); },
     "DEADBEEF 01030301 A3FC0024 00000004 00000001",
     "EFBEADDE 00000000 01010300 2400FC03 01000000 04000000 00000000 00000000 00000000"},
    {"SetIntArray", [](FemHandle &h) { return pulsar3FemSetIntArray(h, 0, 0, 0, five); },
     "DEADBEEF 01030302 A0000000 00000014 00000001 00000002 00000003 00000004 00000005",
     "EFBEADDE 00000000 02010300 00000000 05000000 14000000 00000000 00000000 00000000"
     "01000000 02000000 03000000 04000000 05000000"},
    {"RMW", [](FemHandle &h) { return pulsar3FemRMW(h, 0, 0, 5, 0xFFFFF1FF, 0x200, got); },
     "DEADBEEF 01030303 A0000014 00000008 FFFFF1FF 00000200",
     "EFBEADDE 00000000 04010300 14000000 01000000 FFF1FFFF 00020000 00000000 00000000"},
    {"LocalWrite", [](FemHandle &h) { return pulsar3FemLocalWrite(h, 0x100000, one); }, "",
     "EFBEADDE 00000000 03000300 00004000 01000000 44332211 00000000 00000000 00000000"},
    {"LocalRead", [](FemHandle &h) { return pulsar3FemLocalRead(h, 34, two); }, "",
     "EFBEADDE 00000000 01000300 88000000 02000000 08000000 00000000 00000000 00000000"},
    {"LocalRMW", [](FemHandle &h) { return pulsar3FemLocalRMW(h, 2, 0x4FFFFFFF, 0, got); }, "",
     "EFBEADDE 00000000 04000300 08000000 01000000 FFFFFF4F 00000000 00000000 00000000"},
    {"RDMAWrite", [](FemHandle &h) { return pulsar3FemRDMAWrite(h, 9, one); },
     "DEADBEEF 01040302 00000009 00000004 11223344",
     "EFBEADDE 00000000 03020300 09000000 01000000 44332211 00000000 00000000 00000000"},
    {"RDMARead", [](FemHandle &h) { return pulsar3FemRDMARead(h, 15, two); },
     "DEADBEEF 01040301 0000000F 00000004 00000002",
     "EFBEADDE 00000000 01020300 0F000000 02000000 08000000 00000000 00000000 00000000"},
    {"RDMARMW", [](FemHandle &h) { return pulsar3FemRDMARMW(h, 15, 1, 2, got); },
     "DEADBEEF 01040303 0000000F 00000008 00000001 00000002",
     "EFBEADDE 00000000 04020300 0F000000 01000000 01000000 02000000 00000000 00000000"},
    {"SPIWrite", [](FemHandle &h) { return pulsar3FemSPIWrite(h, 3, one); },
     "DEADBEEF 01050302 00000003 00000004 11223344",
     "EFBEADDE 00000000 03120300 03000000 01000000 44332211 00000000 00000000 00000000"},
    {"SPIRead", [](FemHandle &h) { return pulsar3FemSPIRead(h, 3, two); },
     "DEADBEEF 01050301 00000003 00000004 00000002",
     "EFBEADDE 00000000 01120300 03000000 02000000 08000000 00000000 00000000 00000000"},
    {"MPSPIWrite", [](FemHandle &h) { return pulsar3FemMPSPIWrite(h, 3, one); },
     "DEADBEEF 01050302 00001003 00000004 11223344",
     "EFBEADDE 00000000 03120300 03100000 01000000 44332211 00000000 00000000 00000000"},
    {"MPSPIRead", [](FemHandle &h) { return pulsar3FemMPSPIRead(h, 3, two); },
     "DEADBEEF 01050301 00001003 00000004 00000002",
     "EFBEADDE 00000000 01120300 03100000 02000000 08000000 00000000 00000000 00000000"},
    {"ChanSPIWrite", [](FemHandle &h) { return pulsar3FemChanSPIWrite(h, 5 << 8 | 1, one); },
     "DEADBEEF 01050302 00002501 00000004 11223344",
     "EFBEADDE 00000000 03160300 01050000 01000000 44332211 00000000 00000000 00000000"},
    {"ChanSPIRead", [](FemHandle &h) { return pulsar3FemChanSPIRead(h, 5 << 8, two); },
     "DEADBEEF 01050301 00002500 00000004 00000002",
     "EFBEADDE 00000000 01160300 00050000 02000000 08000000 00000000 00000000 00000000"},
    {"I2CWrite", [](FemHandle &h) { return pulsar3FemI2CWrite(h, 0x50, three); },
     "DEADBEEF 01020102 00000050 00000003 A1A2A3",
     "EFBEADDE 00000000 03110100 50000000 03000000 A1A2A300 00000000 00000000 00000000"},
    {"I2CRead", [](FemHandle &h) { return pulsar3FemI2CRead(h, 0x50, octets); },
     "DEADBEEF 01020101 00000050 00000004 00000003",
     "EFBEADDE 00000000 01110100 50000000 03000000 03000000 00000000 00000000 00000000"},
    {"I2CWriteRegAddr", [](FemHandle &h) { return pulsar3FemI2CWriteRegAddr(h, 0x48, 7, three); },
     "DEADBEEF 01020102 00010748 00000003 A1A2A3",
     "EFBEADDE 00000000 03110100 48070100 03000000 A1A2A300 00000000 00000000 00000000"},
    {"I2CReadRegAddr", [](FemHandle &h) { return pulsar3FemI2CReadRegAddr(h, 0x48, 7, octets); },
     "DEADBEEF 01020101 00010748 00000004 00000003",
     "EFBEADDE 00000000 01110100 48070100 03000000 03000000 00000000 00000000 00000000"},
    {"WriteFanControl", [](FemHandle &h) { return pulsar3FemWriteFanControl(h, 4, one); },
     "DEADBEEF 01070302 00000004 00000004 11223344",
     "EFBEADDE 00000000 03130300 04000000 01000000 44332211 00000000 00000000 00000000"},
    {"ReadFanControl", [](FemHandle &h) { return pulsar3FemReadFanControl(h, 4, two); },
     "DEADBEEF 01070301 00000004 00000004 00000002",
     "EFBEADDE 00000000 01130300 04000000 02000000 08000000 00000000 00000000 00000000"},
    {"ConfigWrite", [](FemHandle &h) { return pulsar3FemConfigWrite(h, 6, one); },
     "DEADBEEF 01080302 00000006 00000004 11223344",
     "EFBEADDE 00000000 03140300 06000000 01000000 44332211 00000000 00000000 00000000"},
    {"ConfigRead", [](FemHandle &h) { return pulsar3FemConfigRead(h, 6, two); },
     "DEADBEEF 01080301 00000006 00000004 00000002",
     "EFBEADDE 00000000 01140300 06000000 02000000 08000000 00000000 00000000 00000000"},
    {"XADCRead", [](FemHandle &h) { return pulsar3FemXADCRead(h, 1, two); }, "",
     "EFBEADDE 00000000 01170300 01000000 02000000 08000000 00000000 00000000 00000000"},
    {"EEPROMWrite", [](FemHandle &h) { return pulsar3FemEEPROMWrite(h, 8, one); },
     "DEADBEEF 01010302 00000008 00000004 11223344",
     "EFBEADDE 00000000 03100300 08000000 01000000 44332211 00000000 00000000 00000000"},
    {"EEPROMRead", [](FemHandle &h) { return pulsar3FemEEPROMRead(h, 8, two); },
     "DEADBEEF 01010301 00000008 00000004 00000002",
     "EFBEADDE 00000000 01100300 08000000 02000000 08000000 00000000 00000000 00000000"},
    {"DRAMWrite", [](FemHandle &h) { return pulsar3FemDRAMWrite(h, 0x100, one); },
     "DEADBEEF 01060302 C0000100 00000004 11223344",
     "EFBEADDE 00000000 03040300 00010000 01000000 44332211 00000000 00000000 00000000"},
    {"WriteDMABuff", [](FemHandle &h) { return pulsar3FemWriteDMABuff(h, 0x80000000, one); },
     "DEADBEEF 01060302 80000000 00000004 11223344",
     "EFBEADDE 00000000 03640300 00000080 01000000 44332211 00000000 00000000 00000000"},
    {"ReadDMABuff", [](FemHandle &h) { return pulsar3FemReadDMABuff(h, 0x80000000, two); },
     "DEADBEEF 01060301 80000000 00000004 00000002",
     "EFBEADDE 00000000 01640300 00000080 02000000 08000000 00000000 00000000 00000000"},
    {"ZeroDMABuff", [](FemHandle &h) { return pulsar3FemZeroDMABuff(h, 0x40, 3); },
     "DEADBEEF 01060302 00000040 0000000C 00000000 00000000 00000000",
     "EFBEADDE 00000000 08640300 40000000 03000000 00000000 00000000 00000000 00000000"},
    {"ReadMiniHistogram", [](FemHandle &h) { return pulsar3FemReadMiniHistogram(h, 0x40, two); }, "",
     "EFBEADDE 00000000 01060300 40000000 02000000 08000000 00000000 00000000 00000000"},
    {"WriteDMAorClk", [](FemHandle &h) { return pulsar3FemWriteDMAorClk(h, 0x40, one); }, "",
     "EFBEADDE 00000000 03030300 40000000 01000000 44332211 00000000 00000000 00000000"},
    {"ReadDMAorClk", [](FemHandle &h) { return pulsar3FemReadDMAorClk(h, 0x40, two); }, "",
     "EFBEADDE 00000000 01030300 40000000 02000000 08000000 00000000 00000000 00000000"},
    {"SetIntMGTDRP", [](FemHandle &h) { return pulsar3FemSetIntMGTDRP(h, 0x40, 0x11223344); }, "",
     "EFBEADDE 00000000 03070300 40000000 01000000 44332211 00000000 00000000 00000000"},
    {"GetIntMGTDRP", [](FemHandle &h) { return pulsar3FemGetIntMGTDRP(h, 0x40, got); }, "",
     "EFBEADDE 00000000 01070300 40000000 01000000 04000000 00000000 00000000 00000000"},
    {"ReadRawReg", [](FemHandle &h) { return pulsar3FemReadRawReg(h, 0x40, two); },
     "DEADBEEF 01030301 00000040 00000004 00000002",
     "EFBEADDE 00000000 010F0300 40000000 02000000 08000000 00000000 00000000 00000000"},
    {"WriteReadoutMode", [](FemHandle &h) { return pulsar3FemWriteReadoutMode(h, 5); }, "",
     "EFBEADDE 00000000 03180300 00000000 01000000 05000000 00000000 00000000 00000000"},
    {"ReadReadoutMode", [](FemHandle &h) { return pulsar3FemReadReadoutMode(h, got); }, "",
     "EFBEADDE 00000000 01180300 00000000 01000000 04000000 00000000 00000000 00000000"},
    {"WriteDriverStatics", [](FemHandle &h) { return pulsar3FemWriteDriverStatics(h, 0, one); }, "", ""},
    {"ReadDriverStatics", [](FemHandle &h) { return pulsar3FemReadDriverStatics(h, 0, two); }, "", ""},
    {"PersonalityWrite", [](FemHandle &h) { return pulsar3FemPersonalityWrite(h, 3, five); },
     "DEADBEEF 04000302 00000003 00000014 00000001 00000002 00000003 00000004 00000005",
     "EFBEADDE 00000000 06000300 03000000 05000000 14000000 00000000 00000000 00000000"
     "01000000 02000000 03000000 04000000 05000000"},
    {"PersonalityWrite embedded",
     [](FemHandle &h) { return pulsar3FemPersonalityWrite(h, 4, std::span(five).first(4)); },
     "DEADBEEF 04000302 00000004 00000010 00000001 00000002 00000003 00000004",
     "EFBEADDE 00000000 07000300 04000000 04000000 01000000 02000000 03000000 04000000"},
    {"PersonalityRead",
     [](FemHandle &h) { return pulsar3FemPersonalityRead(h, 13, std::span(five).first(4), two); },
     "DEADBEEF 04000301 0000000D 00000010 00000001 00000002 00000003 00000004",
     "EFBEADDE 00000000 05000300 0D000000 02000000 01000000 02000000 03000000 04000000"},
    {"16-bit items",
     [](FemHandle &h) {
         const fem_target target{.bus = 6, .width = WIDTH_WORD, .address = 0x10, .step = 2};
         const std::array<std::uint16_t, 2> words{0x1122, 0x3344};
         const auto items = std::as_bytes(std::span(words));
         return h.protocol_generation == ProtocolFEM1 ? femAccessWrite(h, target, items)
                                                      : plr4AccessWrite(h, target, items);
     },
     "DEADBEEF 01060202 00000010 00000004 11223344",
     "EFBEADDE 00000000 03060200 10000000 02000000 22114433 00000000 00000000 00000000"},
};

std::string without_blanks(std::string_view text) {
    return hex(bytes(text));
}

void check(const row &r, const char *expected, peer &card, const handle &h) {
    SCOPED_TRACE(r.what);
    ASSERT_TRUE(h) << plr3_get_error_message();
    const int rc = r.call(*h);
    const auto sent = card.requests();
    if (*expected == '\0') {
        EXPECT_EQ(rc, plr3_failed);
        EXPECT_TRUE(sent.empty());
        EXPECT_TRUE(std::string_view(plr3_get_error_message()).starts_with("FEM protocol generation "));
        return;
    }
    EXPECT_EQ(rc, 0) << plr3_get_error_message();
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0], without_blanks(expected));
}

} // namespace

TEST(wire_requests, every_access_has_these_bytes_in_generation_1) {
    for (const row &r : rows) {
        peer card(1);
        check(r, r.fem1, card, connect1(card));
    }
}

TEST(wire_requests, every_access_has_these_bytes_in_generation_2) {
    for (const row &r : rows) {
        peer card(2);
        check(r, r.fem2, card, connect2(card));
    }
}

TEST(wire_requests, what_a_card_answers_arrives_in_the_order_of_memory) {
    for (const int generation : {1, 2}) {
        peer card(generation, [=](const std::string &request) {
            reply r = peer::good(generation, request);
            const std::size_t end = r.bytes.size();
            r.bytes.replace(end - 4, 4, bytes(generation == 1 ? "01020304" : "04030201"));
            return r;
        });
        const handle h = generation == 1 ? connect1(card) : connect2(card);
        ASSERT_TRUE(h);
        EXPECT_EQ(pulsar3FemGetIntArray(*h, 0, 0, 60, two), 0);
        EXPECT_EQ(two[0], 0x01010101U);
        EXPECT_EQ(two[1], 0x01020304U);
        EXPECT_EQ(pulsar3FemRMW(*h, 0, 0, 60, 0, 0, got), 0);
        EXPECT_EQ(got, 0x01020304U);
        EXPECT_EQ(pulsar3FemPersonalityRead(*h, 13, one, two), 0);
        EXPECT_EQ(two[1], 0x01020304U);
    }
}

TEST(wire_requests, generation_1_reads_300_words_as_255_and_45) {
    peer card(1);
    const handle h = connect1(card);
    ASSERT_TRUE(h);
    std::vector<std::uint32_t> words(300);
    EXPECT_EQ(pulsar3FemGetIntArray(*h, 0, 0, 16, words), 0);
    const auto sent = card.requests();
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_EQ(sent[0], without_blanks("DEADBEEF 01030301 A0000040 00000004 000000FF"));
    EXPECT_EQ(sent[1], without_blanks("DEADBEEF 01030301 A000043C 00000004 0000002D"));
    EXPECT_EQ(words[254], 0xFFFFFFFFU);
    EXPECT_EQ(words[255], 0x01010101U);
    EXPECT_EQ(words[299], 0x2D2D2D2DU);
}

// Address and payload size (or items) of each request of a transfer.
struct cut {
    std::uint32_t address, size;
    bool operator==(const cut &) const = default;
};

void PrintTo(const cut &c, std::ostream *out) {
    *out << std::hex << c.address << "+" << c.size;
}

std::vector<cut> cuts(const std::vector<std::string> &requests, int generation) {
    std::vector<cut> found;
    for (const std::string &r : requests) {
        const auto word = [&](std::size_t at) {
            const auto value = static_cast<std::uint32_t>(std::stoul(r.substr(2 * at, 8), nullptr, 16));
            return generation == 1 ? value : __builtin_bswap32(value);
        };
        found.push_back(generation == 1 ? cut{word(8), word(12)} : cut{word(12), word(16)});
    }
    return found;
}

TEST(wire_requests, long_transfers_are_cut_where_each_protocol_wants_it) {
    std::vector<std::uint32_t> words(20000);
    {
        peer card(1);
        const handle h = connect1(card);
        ASSERT_TRUE(h);
        EXPECT_EQ(pulsar3FemSetIntArray(*h, 0, 1, 0, words), 0);
        EXPECT_EQ(cuts(card.take_requests(), 1),
                  (std::vector<cut>{{0xA0040000, 65536}, {0xA0050000, 14464}}));
        EXPECT_EQ(pulsar3FemWriteDMABuff(*h, 0x1000, std::span(words).first(600)), 0);
        EXPECT_EQ(cuts(card.take_requests(), 1),
                  (std::vector<cut>{{0x1000, 1024}, {0x1400, 1024}, {0x1800, 352}}));
        EXPECT_EQ(pulsar3FemConfigWrite(*h, 0x10, words), 0); // a word-addressed target
        EXPECT_EQ(cuts(card.take_requests(), 1), (std::vector<cut>{{0x10, 65536}, {0x4010, 14464}}));
    }
    peer card(2);
    const handle h = connect2(card);
    ASSERT_TRUE(h);
    EXPECT_EQ(pulsar3FemSetIntArray(*h, 0, 1, 0, std::span(words).first(16385)), 0);
    const auto sent = card.take_requests();
    EXPECT_EQ(cuts(sent, 2), (std::vector<cut>{{0x40000, 16384}, {0x50000, 1}}));
    EXPECT_EQ(sent[1].substr(16, 2), "03"); // the last word travels inside its header
    EXPECT_EQ(pulsar3FemGetIntArray(*h, 0, 1, 0, words), 0);
    EXPECT_EQ(cuts(card.take_requests(), 2), (std::vector<cut>{{0x40000, 16384}, {0x50000, 3616}}));
    EXPECT_EQ(words[16384], 0x01010101U);
    EXPECT_EQ(pulsar3FemReadDMABuffRoI(*h, 0x100, 2, 3, 10, words), 0);
    EXPECT_EQ(cuts(card.take_requests(), 2), (std::vector<cut>{{0x100, 2}, {0x128, 2}, {0x150, 2}}));
}

TEST(wire_requests, nothing_travels_for_no_items) {
    for (const int generation : {1, 2}) {
        peer card(generation);
        const handle h = generation == 1 ? connect1(card) : connect2(card);
        ASSERT_TRUE(h);
        EXPECT_EQ(pulsar3FemSetIntArray(*h, 0, 0, 0, {}), 0);
        EXPECT_EQ(pulsar3FemGetIntArray(*h, 0, 0, 0, {}), 0);
        EXPECT_EQ(pulsar3FemSetIntChans(*h, 0, 16, 0, 0, {}), 0);
        EXPECT_EQ(pulsar3FemSetIntChans(*h, 0, 0, 0, 0, one), 0);
        EXPECT_EQ(pulsar3FemI2CWrite(*h, 0x50, {}), 0);
        EXPECT_EQ(pulsar3FemZeroDMABuff(*h, 0, 0), 0);
        EXPECT_EQ(pulsar3FemReadDMABuffRoI(*h, 0, 0, 5, 1, {}), 0);
        EXPECT_EQ(pulsar3FemPersonalityWrite(*h, 1, {}), 0);
        EXPECT_EQ(pulsar3FemPersonalityRead(*h, 10, one, {}), 0);
        EXPECT_TRUE(card.requests().empty());
    }
}

TEST(wire_requests, registers_that_do_not_exist_are_refused_here) {
    peer card(2);
    const handle h = connect2(card);
    ASSERT_TRUE(h);
    std::vector<std::uint32_t> words(0x10000);
    std::vector<std::uint8_t> many(0x10001);
    EXPECT_EQ(pulsar3FemSetInt(*h, 16, 0, 0, 1), plr3_failed);
    EXPECT_STREQ(plr3_get_error_message(), "No such FEM registers: channel 16, region 0, offset 0, 1 words");
    EXPECT_EQ(pulsar3FemSetInt(*h, -1, 0, 0, 1), plr3_failed);
    EXPECT_EQ(pulsar3FemSetInt(*h, 0, 16, 0, 1), plr3_failed);
    EXPECT_EQ(pulsar3FemGetInt(*h, 0, 0, 0x10000, got), plr3_failed);
    EXPECT_EQ(pulsar3FemGetIntArray(*h, 0, 0, 1, words), plr3_failed); // would reach into the next region
    EXPECT_EQ(pulsar3FemSetIntChans(*h, 15, 2, 0, 0, one), plr3_failed);
    EXPECT_EQ(pulsar3FemSetIntChans(*h, 0, -1, 0, 0, one), plr3_failed);
    EXPECT_EQ(pulsar3FemLocalRead(*h, -1, two), plr3_failed);
    EXPECT_EQ(pulsar3FemI2CRead(*h, 256, octets), plr3_failed);
    EXPECT_EQ(pulsar3FemI2CReadRegAddr(*h, 1, -1, octets), plr3_failed);
    EXPECT_EQ(pulsar3FemI2CWrite(*h, 1, many), plr3_failed);
    EXPECT_EQ(pulsar3FemReadDMABuffRoI(*h, 0, 3, 2, 10, std::span(words).first(5)), plr3_failed);
    EXPECT_EQ(pulsar3FemSetPacketSize(*h, 9008), plr3_failed);
    EXPECT_EQ(pulsar3FemSetHostPort(*h, 65536), plr3_failed);
    EXPECT_TRUE(card.requests().empty());
}

TEST(wire_requests, writes_to_all_channels_are_posted_and_answered_in_order) {
    peer card(2);
    const handle h = connect2(card);
    ASSERT_TRUE(h);
    EXPECT_EQ(pulsar3FemSetIntChans(*h, 0, 16, 0, 24, one), 0);
    const auto sent = card.requests();
    ASSERT_EQ(sent.size(), 16U);
    for (std::uint32_t chan = 0; chan < 16; ++chan) {
        EXPECT_EQ(cuts({sent[chan]}, 2)[0], (cut{4 * (chan << 20 | 24), 1}));
        EXPECT_EQ(sent[chan].substr(8, 2),
                  hex(std::string(1, static_cast<char>(chan)))); // its sequence number
    }
    EXPECT_EQ(h->num_posted_writes, 0);
    h->max_posted_writes = 3; // more calls of the system, the same requests
    EXPECT_EQ(pulsar3FemSetIntChans(*h, 0, 16, 0, 24, one), 0);
    EXPECT_EQ(card.requests().size(), 32U);
}

TEST(wire_requests, the_data_link_is_programmed_in_this_order) {
    peer card(1);
    const handle h = connect1(card);
    ASSERT_TRUE(h);
    const std::uint8_t mac[] = {2, 0, 0, 0, 1, 4};
    EXPECT_EQ(pulsar3FemConfigUDP(*h, mac, "192.168.0.74", 30124, "127.0.0.65", 30125), 0)
        << plr3_get_error_message();
    EXPECT_EQ(pulsar3FemSetHostPort(*h, 30126), 0);
    EXPECT_EQ(pulsar3FemSetPacketSize(*h, 9000), 0);
    EXPECT_EQ(pulsar3FemResetFrameCounter(*h, 1), 0);
    const char *const expected[] = {
        "00 00000002", // the host's hardware address is of loop-back: zeros
        "01 00000401", "02 00000000", "04 DB00001C", "06 007FDEAD", "07 A8C04100",
        "08 AC754A00", "09 0008AD75", "0B 0000B300", "0C 000003E6", "0D 0000000A",
        "0E 000000AA", "0F 00000001", "09 0008AE75", "0C 000003E6", "10 00000001",
    };
    const auto sent = card.requests();
    ASSERT_EQ(sent.size(), std::size(expected));
    for (std::size_t i = 0; i < sent.size(); ++i)
        EXPECT_EQ(sent[i].substr(22, 2) + " " + sent[i].substr(32), expected[i]);
    EXPECT_EQ(pulsar3FemConfigUDP(*h, mac, "card", 1, "127.0.0.1", 2), plr3_failed);
}
