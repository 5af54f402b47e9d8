// Scanners over a text file image: lines, integers and reals.
#include <gtest/gtest.h>
#include <string>

#include "core/text_scan.h"

namespace {

// A scanner over a copy of `s` (the text's bytes only, no closing zero).
struct Scan {
  std::string text;
  Text_Image t;
  explicit Scan(std::string s) : text(std::move(s)) {
    t.buf = text.data();
    t.size = static_cast<int64_t>(text.size());
  }
  std::string Line() {
    char line[text_line_max + 1];
    const int n = read_line(t, line);
    EXPECT_EQ(n, static_cast<int>(std::string(line).size()));
    return line;
  }
};

} // namespace

TEST(TextScan, ReadLineSkipsBlanksAndHandlesLineEnds) {
  Scan s("\n\n   \t first line  \r\n\r\nsecond\rthird\n\xC3\xA9t\xC3\xA9 x\n   \n");
  EXPECT_EQ(s.Line(), "first line  "); // trailing blanks are kept
  EXPECT_EQ(s.Line(), "second");
  EXPECT_EQ(s.Line(), "third");
  EXPECT_EQ(s.Line(), "t\xC3\xA9 x"); // bytes above 127 are skipped only in front
  EXPECT_EQ(s.Line(), "");            // blank lines never count as lines
  EXPECT_EQ(s.t.pos, s.t.size);
  EXPECT_EQ(s.Line(), "");
}

TEST(TextScan, ReadLineKeepsAtMost259CharactersButConsumesTheLine) {
  Scan s(std::string(300, 'a') + "\nnext line\n");
  const std::string first = s.Line();
  EXPECT_EQ(first.size(), 259u);
  EXPECT_EQ(first, std::string(259, 'a'));
  EXPECT_EQ(s.Line(), "next line");

  Scan exact(std::string(259, 'b') + "c");
  EXPECT_EQ(exact.Line(), std::string(259, 'b'));
  EXPECT_EQ(exact.t.pos, exact.t.size);
}

TEST(TextScan, ReadIntSkipsTextAndContinuesAcrossLines) {
  Scan s("values: 12, 34,56\n\n  -7 and +8\r\n9");
  EXPECT_EQ(read_int(s.t), 12);
  EXPECT_EQ(s.t.found, 1);
  EXPECT_EQ(read_int(s.t), 34);
  EXPECT_EQ(read_int(s.t), 56);
  EXPECT_EQ(read_int(s.t), -7);
  EXPECT_EQ(read_int(s.t), 8);
  EXPECT_EQ(read_int(s.t), 9);
  EXPECT_EQ(read_int(s.t), 0);
  EXPECT_EQ(s.t.found, 0);

  Scan big("12345678901 x");
  EXPECT_EQ(read_int64(big.t), 12345678901LL);
}

TEST(TextScan, ReadIntTakesTheWholeTokenAndStopsConverting) {
  // "12.7" gives 12 and the ".7" is gone with the token.
  Scan s("12.7 8 1e3 4 2d5 6");
  EXPECT_EQ(read_int(s.t), 12);
  EXPECT_EQ(s.t.pos, 4);
  EXPECT_EQ(read_int(s.t), 8);
  EXPECT_EQ(read_int(s.t), 1); // exponent letters belong to the token
  EXPECT_EQ(read_int(s.t), 4);
  EXPECT_EQ(read_int(s.t), 2);
  EXPECT_EQ(read_int(s.t), 6);

  // A letter alone cannot start a number: "e5" is text and then 5.
  Scan letters("size e5");
  EXPECT_EQ(read_int(letters.t), 5);
}

TEST(TextScan, ReadRealExponentsSignsAndFoundFlag) {
  Scan s("1.5d2 2.5D-1, -3.25e1 4E2 .5 -.25\n7");
  EXPECT_DOUBLE_EQ(read_real(s.t), 150.0);
  EXPECT_EQ(s.t.found, 1);
  EXPECT_DOUBLE_EQ(read_real(s.t), 0.25);
  EXPECT_DOUBLE_EQ(read_real(s.t), -32.5);
  EXPECT_DOUBLE_EQ(read_real(s.t), 400.0);
  EXPECT_DOUBLE_EQ(read_real(s.t), 0.5);
  EXPECT_DOUBLE_EQ(read_real(s.t), -0.25);
  EXPECT_DOUBLE_EQ(read_real(s.t), 7.0);
  EXPECT_EQ(s.t.found, 1);
  EXPECT_DOUBLE_EQ(read_real(s.t), 0.0);
  EXPECT_EQ(s.t.found, 0);

  // "*" is text to read_real.
  Scan star("* 4.5");
  EXPECT_DOUBLE_EQ(read_real(star.t), 4.5);

  // A token holds at most 80 characters; the rest starts the next one.
  Scan longtok(std::string(80, '0') + "12 3");
  EXPECT_DOUBLE_EQ(read_real(longtok.t), 0.0);
  EXPECT_DOUBLE_EQ(read_real(longtok.t), 12.0);
  EXPECT_DOUBLE_EQ(read_real(longtok.t), 3.0);
}

TEST(TextScan, ReadRealStarGivesDefaultForStarTokens) {
  Scan s("2.5 * 10*3 7d1");
  int star = -1;
  EXPECT_DOUBLE_EQ(read_real_star(s.t, 99.0, star), 2.5);
  EXPECT_EQ(star, 0);
  EXPECT_DOUBLE_EQ(read_real_star(s.t, 99.0, star), 99.0);
  EXPECT_EQ(star, 1);
  EXPECT_DOUBLE_EQ(read_real_star(s.t, -1.0, star), -1.0);
  EXPECT_EQ(star, 1);
  EXPECT_DOUBLE_EQ(read_real_star(s.t, 99.0, star), 70.0);
  EXPECT_EQ(star, 0);
  EXPECT_DOUBLE_EQ(read_real_star(s.t, 99.0, star), 0.0);
  EXPECT_EQ(star, 0);
  EXPECT_EQ(s.t.found, 0);
}

TEST(TextScan, CaptionLineDoesNotFeedItsDigits) {
  const std::string text = "Damping factor for layer 3 (1D)\n0.15\nNumber of iterations 2\n  8\n";
  Scan s(text);
  EXPECT_EQ(s.Line(), "Damping factor for layer 3 (1D)");
  EXPECT_DOUBLE_EQ(read_real(s.t), 0.15);
  EXPECT_EQ(s.Line(), "Number of iterations 2");
  EXPECT_EQ(read_int(s.t), 8);

  // Without read_line the caption's digits would be taken for the value.
  Scan trap(text);
  EXPECT_EQ(read_int(trap.t), 3);
}
