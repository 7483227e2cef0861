// The header table and the field scanners, called directly.

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "leitch/scan.h"

using namespace leitch;

namespace {

// Classify a text; returns the code and what is left after the header.
std::pair<int, std::string> classify(const char* text) {
    std::string buffer = text;
    char* cursor = &buffer[0];
    const int code = msg_switcher(&cursor);
    return {code, std::string(cursor)};
}

TEST(HeaderTable, HasNineteenRowsInMatchOrder) {
    const int codes[19] = {1, 0, 9, 5, 6, 7, 8, 10, 2, 3, 4, 16, 17, 11, 12, 13, 14, 15, -1};
    const char* texts[19] = {"@ ?",  "@ !",  "@ Z:", "@ S?", "@ X?", "@ W:", "@ W:",
                             "@ X:", "@ B:C", "@ B:E", "@ P:", "@ P?", "@ V?", "@ F?",
                             "@ I?", "@ Q?", "@ M?", "@ T,", "  "};
    for (int i = 0; i < 19; ++i) {
        EXPECT_EQ(codes[i], statusHeader[i].code) << "row " << i + 1;
        EXPECT_STREQ(texts[i], statusHeader[i].text) << "row " << i + 1;
    }
}

TEST(MsgSwitcher, LockAlwaysClassifiesAsSevenAndStepsOverTheHeader) {
    EXPECT_EQ(std::make_pair(7, std::string("0/5,1,1")), classify("@ W:0/5,1,1"));
}

TEST(MsgSwitcher, ExecuteAndClearAreToldApartByTheFifthCharacter) {
    EXPECT_EQ(std::make_pair(2, std::string("")), classify("@ B:C"));
    EXPECT_EQ(std::make_pair(3, std::string("xyz")), classify("@ B:Exyz"));
    EXPECT_EQ(std::make_pair(-1, std::string("@ B:")), classify("@ B:"));
    EXPECT_EQ(std::make_pair(-1, std::string("@ B:X")), classify("@ B:X"));
}

TEST(MsgSwitcher, ReportModeHeaders) {
    EXPECT_EQ(1, classify("@ ?").first);
    EXPECT_EQ(0, classify("@ !").first);
    EXPECT_EQ(std::make_pair(-1, std::string("@?")), classify("@?"));
    EXPECT_EQ(std::make_pair(-1, std::string("@ s?")), classify("@ s?"));
}

TEST(MsgSwitcher, EmptyTextIsUnknownAndNotAdvanced) {
    EXPECT_EQ(std::make_pair(-1, std::string("")), classify(""));
}

TEST(MsgSwitcher, NothingAfterTheHeaderIsChecked) {
    EXPECT_EQ(std::make_pair(5, std::string("0")), classify("@ S?0"));
    EXPECT_EQ(std::make_pair(5, std::string("")), classify("@ S?"));
    EXPECT_EQ(std::make_pair(5, std::string("xyz")), classify("@ S?xyz"));
}

TEST(MsgSwitcher, AnythingBeforeTheAtSignIsUnknown) {
    EXPECT_EQ(-1, classify(" @ S?0").first);
    EXPECT_EQ(-1, classify("x@ S?0").first);
}

TEST(MsgSwitcher, EveryHeaderHasItsCode) {
    EXPECT_EQ(9, classify("@ Z:").first);
    EXPECT_EQ(6, classify("@ X?01").first);
    EXPECT_EQ(10, classify("@ X:0/5,3").first);
    EXPECT_EQ(4, classify("@ P:0/5,3").first);
    EXPECT_EQ(16, classify("@ P?05").first);
    EXPECT_EQ(17, classify("@ V?").first);
    EXPECT_EQ(11, classify("@ F?0").first);
    EXPECT_EQ(12, classify("@ I?A").first);
    EXPECT_EQ(13, classify("@ Q?").first);
    EXPECT_EQ(14, classify("@ M?").first);
    EXPECT_EQ(15, classify("@ T,12").first);
}

TEST(FindLen, StopsAtTerminatorNulLfCr) {
    EXPECT_EQ(2, find_len("12,3", ','));
    EXPECT_EQ(0, find_len(",3", ','));
    EXPECT_EQ(2, find_len("12", ','));
    EXPECT_EQ(2, find_len("12\r3", ','));
    EXPECT_EQ(2, find_len("12\n3", ','));
    EXPECT_EQ(0, find_len("\r", ','));
}

TEST(FindLen, ComparesBytesUnsigned) {
    EXPECT_EQ(1, find_len("a\xFF", '\xFF'));
    EXPECT_EQ(3, find_len("\x80\x90\xA0", ','));
}

TEST(AscVal, WidthOneReadsOneHexDigit) {
    char text[] = "A5,";
    int v = -7;
    char* rest = asc_val(text, 1, "%X", &v, 0);
    EXPECT_EQ(10, v);
    EXPECT_EQ(text + 1, rest);
}

TEST(AscVal, WidthMinusOneReadsToTheTerminator) {
    char text[] = "1F,2";
    int v = -7;
    char* rest = asc_val(text, -1, "%X", &v, ',');
    EXPECT_EQ(31, v);
    EXPECT_STREQ(",2", rest);
}

TEST(AscVal, EmptyFieldLeavesTheValueAndThePointer) {
    char text[] = ",2";
    int v = -7;
    bool converted = true;
    char* rest = asc_val(text, -1, "%X", &v, ',', &converted);
    EXPECT_EQ(-7, v);
    EXPECT_EQ(text, rest);
    EXPECT_FALSE(converted);
}

TEST(AscVal, EmptyTextWithWidthOneStepsPastTheNul) {
    char text[] = "";
    int v = -7;
    char* rest = asc_val(text, 1, "%X", &v, 0);
    EXPECT_EQ(-7, v);
    EXPECT_EQ(text + 1, rest);
}

TEST(AscVal, DecimalFormat) {
    char text[] = "12";
    int v = -7;
    EXPECT_EQ(text + 1, asc_val(text, 1, "%d", &v, 0));
    EXPECT_EQ(1, v);
}

TEST(AscVal, LongFieldIsCutTo31CharactersButFullyStepped) {
    std::string field = std::string(40, '0') + "1F";
    field += ",";
    int v = -7;
    char* rest = asc_val(&field[0], -1, "%X", &v, ',');
    EXPECT_EQ(0, v);  // only the 31 leading zeros were converted
    EXPECT_EQ(&field[42], rest);

    std::string shorter = std::string(29, '0') + "1F,";
    asc_val(&shorter[0], -1, "%X", &v, ',');
    EXPECT_EQ(31, v);
}

TEST(AscVal, ConvertsLikeScanfWithSignAndPrefix) {
    int v = 0;
    char negative[] = "-5,";
    asc_val(negative, -1, "%X", &v, ',');
    EXPECT_EQ(-5, v);
    char prefixed[] = "0x1F,";
    asc_val(prefixed, -1, "%X", &v, ',');
    EXPECT_EQ(31, v);
    char lower[] = "ff,";
    asc_val(lower, -1, "%X", &v, ',');
    EXPECT_EQ(255, v);
}

TEST(ReadField, ConvertsTheSameAsAscVal) {
    const char* samples[] = {"", "5", "1F", "xyz", "-3;@ X:0/5", "7,8",
                             "99999999999999999999999999999999999999999999999999"};
    for (const char* s : samples) {
        std::string a = s, b = s;
        int va = -9, vb = -9;
        bool ok = false;
        asc_val(&a[0], -1, "%X", &va, '\r', &ok);
        EXPECT_EQ(ok, read_field(&b[0], "%X", &vb, '\r')) << s;
        EXPECT_EQ(va, vb) << s;
    }
}

TEST(MoveNext, StepsOverRunsOfSeparators) {
    char a[] = ",/:,5";
    EXPECT_EQ(a + 4, move_next(a));
    char b[] = "I2";
    EXPECT_EQ(b + 1, move_next(b));
    char c[] = " 5";
    EXPECT_EQ(c, move_next(c));
    char d[] = "";
    EXPECT_EQ(d, move_next(d));
    char e[] = "i5";  // only the capital I is a separator
    EXPECT_EQ(e, move_next(e));
}

TEST(HexDigit, MatchesAOneCharacterHexConversion) {
    for (int c = 1; c < 256; ++c) {
        char text[2] = {static_cast<char>(c), 0};
        unsigned v = 0;
        const bool converts = std::sscanf(text, "%X", &v) == 1;
        EXPECT_EQ(converts ? static_cast<int>(v) : -1, hex_digit(static_cast<char>(c))) << c;
    }
}

// The conversions scan_decimal and scan_hex reproduce: scanf's "%d" and "%X"
// where long has 64 bits. They convert through strtol and strtoul and narrow
// the result; "%lld" and "%llX" convert through strtoll and strtoull, which
// have 64 bits on every processor, so narrowing their results gives the same
// expectations on 32-bit ARM as on x86-64.
bool scanf_decimal(const char* text, int* out) {
    long long value = 0;
    if (std::sscanf(text, "%lld", &value) != 1) return false;
    *out = static_cast<int>(static_cast<unsigned>(static_cast<unsigned long long>(value)));
    return true;
}

bool scanf_hex(const char* text, int* out) {
    unsigned long long value = 0;
    if (std::sscanf(text, "%llX", &value) != 1) return false;
    *out = static_cast<int>(static_cast<unsigned>(value));
    return true;
}

TEST(ScanDecimal, MatchesScanf) {
    const char* samples[] = {"0", "12", "-3", "+4", " 5", "\t6", "\v7x", "a", "", "-", "+", " ",
                             "2147483647", "2147483648", "-2147483648", "-2147483649",
                             "4294967296", "9223372036854775807", "9223372036854775808",
                             "-9223372036854775808", "-9223372036854775809",
                             "99999999999999999999999", "-99999999999999999999999", "12;@ S?3",
                             "0012", "- 5", "1,3", "\xFF"};
    for (const char* s : samples) {
        int expected = -77, actual = -77;
        const bool converts = scanf_decimal(s, &expected);
        EXPECT_EQ(converts, scan_decimal(s, &actual)) << '"' << s << '"';
        if (converts) {
            EXPECT_EQ(expected, actual) << '"' << s << '"';
        }
    }
}

// Every text of up to five characters over the characters that matter to a
// number conversion (digits, hex letters, prefix letters, signs, blanks).
std::vector<std::string> conversion_texts() {
    const std::string alphabet = "019aFgxX-+ \t";
    std::vector<std::string> texts{""};
    for (size_t begin = 0, length = 1; length <= 5; ++length) {
        const size_t end = texts.size();
        for (size_t i = begin; i < end; ++i) {
            for (const char c : alphabet) texts.push_back(texts[i] + c);
        }
        begin = end;
    }
    for (const char* big : {"FFFFFFFF", "100000000", "FFFFFFFFFFFFFFFF", "10000000000000000",
                            "-FFFFFFFFFFFFFFFF", "-10000000000000000", "0x7FFFFFFF", "-80000000",
                            "2147483647", "-2147483648", "99999999999999999999", "0000000000000000000000000000001F"}) {
        texts.push_back(big);
    }
    return texts;
}

TEST(ScanHex, MatchesScanfOnEveryShortText) {
    for (const std::string& text : conversion_texts()) {
        int expected = 0x5A5A5A5A;
        int actual = 0x5A5A5A5A;
        const bool converts = scanf_hex(text.c_str(), &expected);
        ASSERT_EQ(converts, scan_hex(text.c_str(), &actual)) << '"' << text << '"';
        ASSERT_EQ(expected, actual) << '"' << text << '"';
    }
}

TEST(ScanDecimal, MatchesScanfOnEveryShortText) {
    for (const std::string& text : conversion_texts()) {
        int expected = 0x5A5A5A5A, actual = 0x5A5A5A5A;
        const bool converts = scanf_decimal(text.c_str(), &expected);
        ASSERT_EQ(converts, scan_decimal(text.c_str(), &actual)) << '"' << text << '"';
        ASSERT_EQ(expected, actual) << '"' << text << '"';
    }
}

}  // namespace
