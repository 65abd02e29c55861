#pragma once
// Localisation: every user-visible text comes by id from here. Include this
// one header; it gathers loading (I18N_Init/I18N_DeInit), lookups and
// accessors, and the formatting helpers.
#include "i18n/builtin_texts.h"
#include "i18n/format.h"
#include "i18n/lang_file.h"
#include "i18n/resources.h"
#include "i18n/text_table.h"
