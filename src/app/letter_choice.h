#pragma once
// The drive letter of a mapping: the preferred letters of the profile with
// their placeholders, the policy for a taken letter and the free-letter
// test. Only C to Z are ever chosen automatically.
//
// Placeholders: '?' none chosen, '2' first free letter from C, '1' last free
// letter from Z, '3' ask (mapping dialog), '4' do not map this storage card.
#include <cstdint>
#include <functional>

#include "app/mapping_profile.h"

namespace qb::app {

using FreeLetterTest = std::function<bool(char)>;
// The free-letter test of the drive layer (a letter is free when nothing is
// mounted or put at its mount point).
bool IsLetterFree(char letter);

// The placeholder for an empty preferred letter: policy 1 gives '2', 2 gives
// '1', anything else '3'.
char PlaceholderOfPolicy(uint32_t policy);

// True when `letter` is to be passed over because it is kept for the next
// storage card of a device whose cards get drives of their own.
bool IsConditionToDropMutiCardSupport(uint32_t multiCardSupport, bool chained, char letter, char nextCard);

// The lowest free letter from C (policy 1) or the highest from Z (policy 2),
// passing over the next card's letter; 0 when none is free or the policy
// names no direction.
char PolicyLetter(uint32_t policy, uint32_t multiCardSupport, bool chained, char nextCard,
                  const FreeLetterTest& isFree);

// What the letter choice decided for the letter it was given.
enum class LetterStep { kMount, kDialog, kSkipCard, kEnd };
struct LetterDecision {
  LetterStep step = LetterStep::kDialog;
  char letter = '?';
  int32_t code = 0;  // with kEnd
};

// The step from a letter (or '?') to a decision: the card's preferred letter
// or the policy's placeholder when none is given, then the placeholder's
// meaning, or the letter when it is free, or the policy when it is taken (a
// direct child ends with -31 then).
struct LetterInputs {
  char letter = '?';
  char preferred = 0;     // the card's preferred letter, 0 when empty
  char nextCard = 0;      // the next card's preferred letter, 0 when empty
  uint32_t policy = 0;    // IfDriveLetterUnavailable
  uint32_t multiCardSupport = 0;
  bool chained = false;
  bool directChild = false;
};
LetterDecision DecideLetter(const LetterInputs& in, const FreeLetterTest& isFree);

}  // namespace qb::app
