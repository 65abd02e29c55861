// The letter choice: placeholders, the policy for a taken letter and the
// letter kept for the next storage card.
#include "app/letter_choice.h"

#include <gtest/gtest.h>

#include <set>

#include "app/main_codes.h"

namespace qb::app {
namespace {

// A machine on which the given letters are taken.
FreeLetterTest TakenAre(std::set<char> taken) {
  return [taken](char c) { return !taken.count(c); };
}

TEST(LetterChoice, FirstFreePlaceholderSkipsTakenLettersAndTheSecondCardsLetter) {
  LetterInputs in;
  in.preferred = '2';
  LetterDecision d = DecideLetter(in, TakenAre({'C', 'D', 'E', 'F'}));
  EXPECT_EQ(d.step, LetterStep::kMount);
  EXPECT_EQ(d.letter, 'G');

  in.nextCard = 'g';
  in.multiCardSupport = 1;
  EXPECT_EQ(DecideLetter(in, TakenAre({'C', 'D', 'E', 'F'})).letter, 'H');
  // A chained instance maps the card that letter is kept for.
  in.chained = true;
  EXPECT_EQ(DecideLetter(in, TakenAre({'C', 'D', 'E', 'F'})).letter, 'G');
}

TEST(LetterChoice, EmptyPreferredLetterTakesThePolicysPlaceholder) {
  LetterInputs in;
  in.policy = 2;
  EXPECT_EQ(DecideLetter(in, TakenAre({})).letter, 'Z');
  EXPECT_EQ(DecideLetter(in, TakenAre({'Z', 'Y'})).letter, 'X');
  in.policy = 1;
  EXPECT_EQ(DecideLetter(in, TakenAre({'C'})).letter, 'D');
  in.policy = 0;
  EXPECT_EQ(DecideLetter(in, TakenAre({})).step, LetterStep::kDialog);
}

TEST(LetterChoice, GivenLetterIsMountedWhenFreeAndThePolicyDecidesWhenTaken) {
  LetterInputs in;
  in.letter = 'q';
  EXPECT_EQ(DecideLetter(in, TakenAre({})).letter, 'Q');

  in.policy = 1;
  EXPECT_EQ(DecideLetter(in, TakenAre({'Q', 'C'})).letter, 'D');
  in.policy = 0;
  EXPECT_EQ(DecideLetter(in, TakenAre({'Q'})).step, LetterStep::kDialog);

  in.directChild = true;
  in.policy = 1;
  LetterDecision d = DecideLetter(in, TakenAre({'Q'}));
  EXPECT_EQ(d.step, LetterStep::kEnd);
  EXPECT_EQ(d.code, kMainLetterUnavailable);
}

TEST(LetterChoice, PlaceholdersAskSkipAndNone) {
  LetterInputs in;
  in.preferred = '3';
  EXPECT_EQ(DecideLetter(in, TakenAre({})).step, LetterStep::kDialog);
  in.preferred = '4';
  EXPECT_EQ(DecideLetter(in, TakenAre({})).step, LetterStep::kSkipCard);
  in.preferred = '1';
  EXPECT_EQ(DecideLetter(in, TakenAre({})).letter, 'Z');
}

TEST(LetterChoice, NoFreeLetterKeepsTheLetterForTheMountToRefuse) {
  FreeLetterTest none = [](char) { return false; };
  LetterInputs in;
  in.letter = 'K';
  in.policy = 1;
  LetterDecision d = DecideLetter(in, none);
  EXPECT_EQ(d.step, LetterStep::kMount);
  EXPECT_EQ(d.letter, 'K');
  EXPECT_EQ(PolicyLetter(2, 0, false, 0, none), 0);
}

TEST(LetterChoice, OnlyCToZAreChosenAutomatically) {
  std::set<char> seen;
  FreeLetterTest record = [&](char c) {
    seen.insert(c);
    return false;
  };
  PolicyLetter(1, 0, false, 0, record);
  PolicyLetter(2, 0, false, 0, record);
  EXPECT_FALSE(seen.count('A'));
  EXPECT_FALSE(seen.count('B'));
  EXPECT_TRUE(seen.count('C'));
  EXPECT_TRUE(seen.count('Z'));
}

TEST(LetterChoice, KeptLetterOnlyWithMultiCardSupportAndNotChained) {
  EXPECT_TRUE(IsConditionToDropMutiCardSupport(1, false, 'e', 'E'));
  EXPECT_FALSE(IsConditionToDropMutiCardSupport(0, false, 'E', 'E'));
  EXPECT_FALSE(IsConditionToDropMutiCardSupport(1, true, 'E', 'E'));
  EXPECT_FALSE(IsConditionToDropMutiCardSupport(1, false, 'E', 0));
  EXPECT_EQ(PlaceholderOfPolicy(1), '2');
  EXPECT_EQ(PlaceholderOfPolicy(2), '1');
  EXPECT_EQ(PlaceholderOfPolicy(7), '3');
}

}  // namespace
}  // namespace qb::app
