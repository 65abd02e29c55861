#include "app/letter_choice.h"

#include "app/main_codes.h"
#include "app/neighbours.h"
#include "common/strings.h"
#include "diag/trace.h"

namespace qb::app {
namespace {

constexpr const char* kTag = "M62@ChooseDriveLetter: ";

char Upper(char c) { return static_cast<char>(ToUpperAZ(c)); }

bool IsLetter(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }

// Applies the policy to a taken letter (or to the first/last placeholder).
LetterDecision ApplyPolicy(uint32_t policy, const LetterInputs& in, const FreeLetterTest& isFree) {
  LetterDecision d;
  if (in.directChild) {
    Trace(kTag, "Selected drive letter unavailable.");
    d.step = LetterStep::kEnd;
    d.code = kMainLetterUnavailable;
    return d;
  }
  if (policy != 1 && policy != 2) {
    d.step = LetterStep::kDialog;
    return d;
  }
  char found = PolicyLetter(policy, in.multiCardSupport, in.chained, in.nextCard, isFree);
  // No free letter: go on with the letter we have; the mount will fail.
  d.letter = found ? found : (IsLetter(in.letter) ? Upper(in.letter) : '?');
  d.step = d.letter == '?' ? LetterStep::kDialog : LetterStep::kMount;
  return d;
}

}  // namespace

bool IsLetterFree(char letter) { return !nb::IsLetterInUse(letter); }

char PlaceholderOfPolicy(uint32_t policy) {
  if (policy == 1) return '2';
  if (policy == 2) return '1';
  return '3';
}

bool IsConditionToDropMutiCardSupport(uint32_t multiCardSupport, bool chained, char letter, char nextCard) {
  Trace("M63@IsConditionToDropMutiCardSupport: ", "%d,%d,%d,%c,%c", 1, multiCardSupport ? 1 : 0, chained ? 1 : 0,
        letter ? letter : '-', nextCard ? nextCard : '-');
  return multiCardSupport && !chained && nextCard && Upper(letter) == Upper(nextCard);
}

char PolicyLetter(uint32_t policy, uint32_t multiCardSupport, bool chained, char nextCard,
                  const FreeLetterTest& isFree) {
  if (policy != 1 && policy != 2) return 0;
  for (int i = 0; i < 24; ++i) {
    char c = policy == 1 ? static_cast<char>('C' + i) : static_cast<char>('Z' - i);
    if (IsConditionToDropMutiCardSupport(multiCardSupport, chained, c, nextCard)) continue;
    if (isFree(c)) return c;
  }
  return 0;
}

LetterDecision DecideLetter(const LetterInputs& in, const FreeLetterTest& isFree) {
  char letter = in.letter;
  if (letter == '?' || letter == 0) {
    letter = in.preferred ? in.preferred : PlaceholderOfPolicy(in.policy);
    Trace(kTag, "Use drive letter %c:", letter);
  }
  LetterInputs with = in;
  with.letter = letter;
  switch (letter) {
    case '2':
      return ApplyPolicy(1, with, isFree);
    case '1':
      return ApplyPolicy(2, with, isFree);
    case '3':
    case '?':
      return {LetterStep::kDialog, '?', 0};
    case '4':
      return {LetterStep::kSkipCard, '?', 0};
    default:
      break;
  }
  if (!IsLetter(letter)) return {LetterStep::kDialog, '?', 0};
  letter = Upper(letter);
  if (isFree(letter)) {
    Trace(kTag, "Drive letter %c: seems available", letter);
    return {LetterStep::kMount, letter, 0};
  }
  return ApplyPolicy(in.policy, with, isFree);
}

}  // namespace qb::app
