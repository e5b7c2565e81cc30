/// What rules can name on this machine, and rules from one line of text.
#pragma once

#include <string>

#include "tarnfirewall/fwExport.h"
#include "tarnfirewall/fwTypes.h"

#include "tarnfwadmin/ruleSyntax.h"

namespace TARNFW_EXPORT_ALL tarnfw {

class Machine;

/// The usable services of the catalogue, and the countries that have data. Without a catalogue or
/// without country data there are none.
RuleVocabulary machineVocabulary(Machine& machine);

/// The rule that a text such as "deny tcp 22,6000-6010 from 192.168.1.0/24" describes, see
/// ruleSyntax.h; words are separated by blanks. Throws what ruleFrom() throws.
FW::FWRULE ruleFromText(const std::string& text, Machine& machine);

}  // namespace tarnfw
