// The one-line rule form: what each piece of the grammar reads as, what is refused and where,
// printing back to an equal rule, and every rule line of the real-ACL corpus.

#include "platform/ovin/AclRuleText.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Acl::AclType;
using Acl::aclTypeIpv4;
using Acl::aclTypeIpv6;
using Acl::aclTypeMac;

// A copy: the result it comes from is usually a temporary.
Acl::RuleText ruleOf(const Acl::RuleTextResult& r) {
    EXPECT_TRUE(r.ok()) << r.error;
    return r.ok() ? *r.rule : Acl::RuleText{};
}

// Reading the printed text gives back the same entry, and printing is a fixed point.
void expectRoundTrip(const Acl::RuleText& rule, AclType type) {
    const std::string printed = Acl::ruleText(rule.seq, rule.entry);
    const Acl::RuleTextResult again = Acl::parseRuleText(printed, type);
    ASSERT_TRUE(again.ok()) << printed << ": " << again.error;
    EXPECT_EQ(again.rule->seq, rule.seq) << printed;
    EXPECT_TRUE(again.rule->entry == rule.entry) << printed;
    EXPECT_EQ(Acl::ruleText(again.rule->seq, again.rule->entry), printed);
}

TEST(AclRuleText, GrammarPiecesReadAsTheRuleTheySay) {
    struct Case {
        const char* line;
        AclType type;
        const char* printed = nullptr;  // canonical form, when the line is not
    };
    const Case cases[] = {
        {"10 permit tcp 10.0.0.0/8 any eq 80", aclTypeIpv4},
        {"20 deny ip any any", aclTypeIpv4},
        {"30 permit udp host 192.0.2.1 any range 1000 2000", aclTypeIpv4},
        {"40 permit icmp any any 3 4", aclTypeIpv4},
        {"41 permit icmp any any 8", aclTypeIpv4},
        {"50 permit tcp any lt 1024 any gt 1023 established", aclTypeIpv4},
        {"60 permit tcp any neq 15 any syn ack urg", aclTypeIpv4,
         "60 permit tcp any neq 15 any ack syn urg"},
        {"70 permit 47 host 10.1.1.1 10.2.0.0/16 dscp 46 fragments", aclTypeIpv4,
         "70 permit 47 host 10.1.1.1 10.2.0.0/16 fragments dscp 46"},
        {"80 PERMIT TCP ANY ANY EQ 22  # orig: permit tcp any any eq ssh", aclTypeIpv4,
         "80 permit tcp any any eq 22"},
        {"90 permit 0132 any any eq 9", aclTypeIpv4, "90 permit 132 any any eq 9"},
        {"91 permit 6 any any eq 9", aclTypeIpv4, "91 permit tcp any any eq 9"},
        {"10 permit tcp 2001:DB8::/48 any eq 22", aclTypeIpv6,
         "10 permit tcp 2001:db8::/48 any eq 22"},
        {"20 permit icmpv6 any host FE80::1 135 0", aclTypeIpv6,
         "20 permit icmpv6 any host fe80::1 135 0"},
        {"30 deny ipv6 ::/0 2001:db8::/32 dscp 10", aclTypeIpv6,
         "30 deny ipv6 any 2001:db8::/32 dscp 10"},
        {"30 permit any any 0x0806", aclTypeMac},
        {"20 permit 00c0.4f00.0000 0000.00ff.ffff any", aclTypeMac},
        {"10 deny any 0100.0CCC.CCCC 0000.0000.0000 0x88cc", aclTypeMac,
         "10 deny any 0100.0ccc.cccc 0000.0000.0000 0x88cc"},
        {"15 remark Permit SSH  from the NOC", aclTypeIpv4},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        const Acl::RuleTextResult r = Acl::parseRuleText(c.line, c.type);
        ASSERT_TRUE(r.ok()) << r.error;
        EXPECT_EQ(Acl::ruleText(r.rule->seq, r.rule->entry), c.printed ? c.printed : c.line);
        EXPECT_TRUE(r.rule->notes.empty());
        expectRoundTrip(*r.rule, c.type);
    }
}

TEST(AclRuleText, FieldsLandWhereTheEngineReadsThem) {
    const Acl::RuleText tcp = ruleOf(Acl::parseRuleText(
        "30 deny tcp host 192.0.2.1 eq 53 any range 1000 2000 rst", aclTypeIpv4));
    ASSERT_TRUE(tcp.entry.isIp());
    const Acl::IpRuleConfig rule = tcp.entry.ipRule();  // unpacked: a value, not a reference
    const Acl::IpFilter& f = rule.filter();
    EXPECT_EQ(tcp.seq, 30u);
    EXPECT_EQ(tcp.entry.ipRule().action(), Acl::aclActionDeny);
    EXPECT_EQ(f.protocol(), Zamu::IpProto(Zamu::IpProto::kTcp));
    EXPECT_EQ(f.source(), Zamu::IpAddrWithMask::prefix("192.0.2.1", 32));
    EXPECT_EQ(f.destination(), Zamu::IpAddrWithMask::prefix("0.0.0.0", 0));
    EXPECT_EQ(tcp.entry.sourcePort(), Acl::PortMatch::eq(53));
    EXPECT_EQ(tcp.entry.destinationPort(), Acl::PortMatch::range(1000, 2000));
    EXPECT_EQ(f.tcpFlags(), Acl::kTcpRst);

    const Acl::RuleText mac =
        ruleOf(Acl::parseRuleText("5 permit 0011.2233.4455 0000.0000.00ff any 0x8100", aclTypeMac));
    ASSERT_TRUE(mac.entry.isMac());
    // Wildcard 1 bits are "don't care": the engine's mask has them 0.
    EXPECT_EQ(mac.entry.macRule().sourceMask(), Zamu::EthAddr("ffff.ffff.ff00"));
    EXPECT_EQ(mac.entry.macRule().source(), Zamu::EthAddr("0011.2233.4400"));
    EXPECT_EQ(mac.entry.macRule().destinationMask(), Zamu::EthAddr());
    EXPECT_EQ(mac.entry.macRule().etherType(), 0x8100);
    ASSERT_EQ(mac.notes.size(), 1u);  // the 0x55 under the wildcard was cleared
}

TEST(AclRuleText, HostBitsBeyondThePrefixAreMaskedAndSaid) {
    const Acl::RuleText& r =
        ruleOf(Acl::parseRuleText("20 permit ip 1.1.1.1/24 4.3.2.1/16", aclTypeIpv4));
    EXPECT_EQ(Acl::ruleText(r.seq, r.entry), "20 permit ip 1.1.1.0/24 4.3.0.0/16");
    EXPECT_EQ(r.notes,
              (std::vector<std::string>{"host bits of 1.1.1.1/24 cleared: read as 1.1.1.0/24",
                                        "host bits of 4.3.2.1/16 cleared: read as 4.3.0.0/16"}));
    const Acl::RuleText& v6 =
        ruleOf(Acl::parseRuleText("20 permit ipv6 2001:db8::1/64 any", aclTypeIpv6));
    EXPECT_EQ(Acl::ruleText(v6.seq, v6.entry), "20 permit ipv6 2001:db8::/64 any");
    EXPECT_EQ(v6.notes.size(), 1u);
}

TEST(AclRuleText, RefusalsNameTheRuleTheReasonAndTheColumn) {
    struct Case {
        const char* line;
        AclType type;
        size_t column;
        const char* why;  // part of the error
    };
    const Case cases[] = {
        {"10 permit ip any any ttl eq 5", aclTypeIpv4, 22, "TTL is not matched by this engine"},
        {"permit ip any any", aclTypeIpv4, 1, "a rule begins with its sequence number"},
        {"0 permit ip any any", aclTypeIpv4, 1, "sequence number"},
        {"10 allow ip any any", aclTypeIpv4, 4, "the action must be permit, deny or remark"},
        {"10 permit icmpv6 any any", aclTypeIpv4, 11, "protocol 'icmpv6' does not belong"},
        {"10 permit ip any any", aclTypeIpv6, 11, "protocol 'ip' does not belong"},
        {"10 permit 0 any any", aclTypeIpv4, 11, "protocol number 0 cannot be matched"},
        {"10 permit 256 any any", aclTypeIpv4, 11, "unknown protocol '256'"},
        {"10 permit ip 10.0.0.0 any", aclTypeIpv4, 14, "must be any, host A or A/LEN"},
        {"10 permit ip 10.0.0.0/33 any", aclTypeIpv4, 23, "prefix length must be 0 to 32"},
        {"10 permit ip 2001:db8::/32 any", aclTypeIpv4, 14, "is not an IPv4 address"},
        {"10 permit ip host 300.1.1.1 any", aclTypeIpv4, 19, "is not an IPv4 address"},
        {"10 permit icmp any any eq 80", aclTypeIpv4, 24, "ports need protocol tcp, udp or sctp"},
        {"10 permit tcp any any range 20 10", aclTypeIpv4, 23,
         "PortMatch::rangeLow > PortMatch::rangeHigh"},
        {"10 permit tcp any any lt 0", aclTypeIpv4, 23, "PortMatch::lt port < 1 not allowed"},
        {"10 permit tcp any any eq 65536", aclTypeIpv4, 26, "destination port must be a number"},
        {"10 permit udp any any syn", aclTypeIpv4, 23, "'syn' needs protocol tcp"},
        {"10 permit tcp any any eq 80 fragments", aclTypeIpv4, 29, "fragments cannot be combined"},
        {"10 permit ip any any dscp 64", aclTypeIpv4, 27, "DSCP must be a number from 0 to 63"},
        {"10 permit ip any any dscp 1 dscp 2", aclTypeIpv4, 29, "dscp given twice"},
        {"10 permit ip any any log", aclTypeIpv4, 22, "unknown option 'log'"},
        {"10 permit tcp any", aclTypeIpv4, 18, "missing destination address"},
        {"10 permit any any 0x08060", aclTypeMac, 19, "the ether type must be 0xHHHH"},
        {"10 permit 0011.2233.4455 any", aclTypeMac, 26,
         "source MAC wildcard must be HHHH.HHHH.HHHH"},
        {"10 permit any any 0x0800 extra", aclTypeMac, 26, "unexpected 'extra'"},
        {"10 remark", aclTypeIpv4, 10, "a remark needs a text"},
        {"   # only a comment", aclTypeIpv4, 1, "empty rule"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        const Acl::RuleTextResult r = Acl::parseRuleText(c.line, c.type);
        ASSERT_FALSE(r.ok());
        EXPECT_EQ(r.column, c.column) << r.error;
        EXPECT_NE(r.error.find(c.why), std::string::npos) << r.error;
        const std::string body = std::string(c.line).substr(0, std::string(c.line).find('#'));
        if (body.find_first_not_of(' ') != std::string::npos) {
            EXPECT_EQ(r.error.rfind("rule '" + body + "': ", 0), 0u) << r.error;
        }
        EXPECT_NE(r.error.find("(column " + std::to_string(c.column) + ")"), std::string::npos);
    }
}

TEST(AclRuleText, FileBlocksCollectRulesAndSayWhichLinesFailed) {
    const char* text =
        "# header\n"
        "10 permit ip any any\n"
        "acl edge ipv4\n"
        "10 permit tcp any any eq 22\n"
        "\n"
        "20 permit ip any any ttl eq 3\n"
        "5 deny ip any any\n"
        "acl l2-filter mac\n"
        "10 permit any any 0x0806  # arp\n"
        "acl bad junk\n";
    const Acl::AclFileText file = Acl::parseAclFileText(text);
    ASSERT_EQ(file.acls.size(), 2u);
    EXPECT_EQ(file.acls[0].key, (Acl::AclConfigKey{"edge", aclTypeIpv4}));
    EXPECT_EQ(file.acls[0].rules.size(), 1u);
    EXPECT_EQ(file.acls[1].key, (Acl::AclConfigKey{"l2-filter", aclTypeMac}));
    EXPECT_EQ(file.acls[1].rules.size(), 1u);
    std::vector<size_t> lines;
    for (const auto& e : file.errors)
        lines.push_back(e.line);
    EXPECT_EQ(lines, (std::vector<size_t>{2, 6, 7, 10}));
}

// ---- The corpus ----

std::filesystem::path corpusDir() {
    namespace fs = std::filesystem;
    std::vector<fs::path> candidates;
    // <repo>/../shared/corpus first: the repository is this source file's grandparent's parent.
    const fs::path repo = fs::path(__FILE__).parent_path().parent_path().parent_path();
    candidates.push_back(repo.parent_path() / "shared" / "corpus");
    candidates.push_back("/work/shared/corpus");
    for (const fs::path& c : candidates) {
        std::error_code ec;
        if (fs::is_directory(c / "real-acls", ec))
            return c / "real-acls";
    }
    return {};
}

TEST(AclRuleTextCorpus, EveryRealRuleIsReadAndPrintedBackOrRefusedByName) {
    namespace fs = std::filesystem;
    const fs::path dir = corpusDir();
    if (dir.empty())
        GTEST_SKIP() << "no corpus at <repo>/../shared/corpus or /work/shared/corpus";
    std::vector<fs::path> files;
    for (const auto& e : fs::directory_iterator(dir)) {
        if (e.path().extension() == ".acl")
            files.push_back(e.path());
    }
    std::sort(files.begin(), files.end());
    ASSERT_FALSE(files.empty());

    size_t accepted = 0;
    for (const fs::path& path : files) {
        SCOPED_TRACE(path.filename().string());
        std::ifstream in(path);
        std::stringstream whole;
        whole << in.rdbuf();
        const std::string text = whole.str();
        std::istringstream lines(text);
        std::string line;
        std::optional<AclType> type;
        size_t lineNo = 0, fileRules = 0;
        while (std::getline(lines, line)) {
            ++lineNo;
            const size_t first = line.find_first_not_of(" \t");
            if (first == std::string::npos || line[first] == '#')
                continue;
            if (line.compare(first, 4, "acl ") == 0) {
                type.reset();
                if (line.find(" ipv4") != std::string::npos)
                    type = aclTypeIpv4;
                if (line.find(" ipv6") != std::string::npos)
                    type = aclTypeIpv6;
                if (line.find(" mac") != std::string::npos)
                    type = aclTypeMac;
                ASSERT_TRUE(type) << line;
                continue;
            }
            ASSERT_TRUE(type) << "rule outside an acl block, line " << lineNo;
            ++fileRules;
            SCOPED_TRACE(line);
            const Acl::RuleTextResult r = Acl::parseRuleText(line, *type);
            const std::string body = line.substr(0, line.find('#'));
            std::string trimmed = body.substr(first);
            trimmed.erase(trimmed.find_last_not_of(" \t") + 1);
            if (!r.ok()) {
                EXPECT_EQ(r.error.rfind("rule '" + trimmed + "': ", 0), 0u) << r.error;
                EXPECT_GE(r.column, 1u);
                continue;
            }
            ++accepted;
            expectRoundTrip(*r.rule, *type);
        }
        // The file reader agrees with the line-by-line reading.
        const Acl::AclFileText file = Acl::parseAclFileText(text);
        size_t read = 0;
        for (const auto& acl : file.acls)
            read += acl.rules.size();
        EXPECT_EQ(read + file.errors.size(), fileRules);
    }
    EXPECT_GT(accepted, 0u);
}

}  // namespace
