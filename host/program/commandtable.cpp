#include "host/program/commandtable.h"

#include "host/program/abonentcommands.h"
#include "host/program/identitycommands.h"
#include "host/program/keycommands.h"
#include "host/program/messagecommands.h"
#include "host/program/portcommands.h"
#include "host/program/portwords.h"
#include "host/program/runcommand.h"
#include "host/program/setupcommand.h"
#include "host/program/statuscommand.h"

namespace host {

namespace {

using Count = CommandArgument::Count;

const CommandArgument abonentName{"NAME", "The abonent's name."};
const CommandArgument keyAsText{"KEY", "The key as text, as the journal and \"key\" show it."};

const std::vector<CommandOption> runOptions{
    {"exit-when-sent", nullptr, "End when nothing is left in the queue."},
    {"exit-when-received", "N", "End when N messages were received."},
    {"timeout", "S", "End after S seconds; with status 3 when something that was waited for is not done by then."},
    {"retry-seconds", "S",
     "The unit of the pauses between calls (default 1): with 1, a first call that failed is repeated after half a "
     "minute to three minutes."},
    {"silence-seconds", "S",
     "A connection on which nothing comes for so long is dead (default 120). Give both ends the same."},
    {"max-size", "SIZE",
     "Refuse messages of more than SIZE: bytes, or with K, M, G or T behind the number, 1024 each."},
    {"abonent-quota", "SIZE", "So much of each abonent may stand in the inbox or be under way (default 8G)."},
    {"unproved-quota", "SIZE", "So much of all those with unknown keys together (default 16M)."},
    {"total-quota", "SIZE", "So much of all together (default 32G)."},
    {"keep-free", "SIZE", "Receive nothing that would leave less free on the disk (default 16M)."},
    {"known-only", nullptr, "Let in only those whose keys are known; so it is by default."},
    {"accept-unknown", nullptr, "Let those with unknown keys leave messages, marked as unproved; they get nothing."},
    {"keep-connected", nullptr, "Keep connections although nothing is left to send."},
    {"no-calls", nullptr, "Only answer calls."},
    {"allow-shared", nullptr,
     "Run although others may change the installation: its settings, data, program or plug-ins."},
    {"core-dumps", nullptr, "Let a crash leave a core dump. It holds the secret key."},
    {"events", "FILE", "Append machine-readable progress to FILE, one JSON object a line."},
    {"plain", nullptr, "Print plain lines, as is done where the output is no terminal."},
    {"quiet", nullptr, "Print nothing but errors."},
};

const std::vector<CommandOption> portOptions{
    {"baud", "N", "Speed between computer and modem (default 115200).", "115200"},
    {"init", "TEXT",
     "Sent to the modem when the port opens; \\r, \\n and \\t stand for the characters (default ATZ\\r).", "ATZ\\r"},
    {"flow", "WORD", "Flow control: %1 (default hardware).", "hardware", flowControlChoices},
    {"data-bits", "N", "Data bits: %1 (default 8).", "8", dataBitsChoices},
    {"parity", "WORD", "Parity: %1 (default none).", "none", parityChoices},
    {"stop-bits", "N", "Stop bits: %1 (default 1).", "1", stopBitsChoices},
    {"disabled", nullptr, "Keep the definition but do not use the port."},
};

const std::vector<Command> table{
    {"run",
     "serve until stopped",
     "Serves the ports until it is stopped (Ctrl+C): answers calls, and calls those for whom messages wait.",
     runHost,
     {},
     runOptions},
    {"setup",
     "lay a new installation out, also for a group",
     "Lays a new installation out for you alone, as the first of the other commands does, or also for a group.\n"
     "An installation that exists is not changed.",
     setUp,
     {},
     {{"group", "NAME",
       "Its members may use the installation and read and change all that is in it, but for the secret key."}},
     Command::Installation::IsLeftAlone},
    {"send",
     "queue files for an abonent",
     "Queues files for an abonent; a running host sends them at once, else the next one does.\n"
     "The files are copied: later changes do not matter.",
     sendFiles,
     {{"ABONENT", "Who is to receive them."}, {"FILE", "Any regular files, of any size.", Count::OneOrMore}}},
    {"cancel",
     "take messages out of the queue",
     "Takes messages out of the queue.",
     cancelMessages,
     {{"NUMBER", "As \"send\" and \"status\" show it.", Count::OneOrMore}}},
    {"status",
     "show queue, inbox and ports",
     "Shows the queue, the inbox, the ports, and how much room is taken.\n"
     "Ends with status 1 when something could not be read; the rest is shown.",
     showStatus,
     {},
     {{"json", nullptr, "For programs: one JSON object."}}},
    {"name",
     "show or set the name of this installation",
     "Shows or sets the name of this installation, as the others know it.",
     showOrSetName,
     {{"NAME", "The new name.", Count::NoneOrOne}}},
    {"key block",
     "let nobody in who has a key",
     "Lets nobody in who has this key, whatever else is allowed.",
     keyBlock,
     {keyAsText}},
    {"key unblock", "take that back", "Takes the block of a key back.", keyUnblock, {keyAsText}},
    {"key",
     "show the key of this installation",
     "Shows the key by which the others know this installation: its fingerprint, to be compared, for example on\n"
     "the telephone, and the text to hand over, for their \"transport-host abonent add NAME --key TEXT\".\n"
     "The key is made at the first time. Its file, settings/identity.key, is a secret.",
     showKey,
     {},
     {{"text", nullptr, "Print the text alone, for scripts."},
      {"json", nullptr, "For programs: one JSON object with \"fingerprint\" and \"key\"."},
      {"new", nullptr, "Make a new key where the file is lost; the others must forget the old one."}}},
    {"port add",
     "define a serial port with a modem",
     "Defines a serial port with a modem, or changes one that is defined.",
     portAdd,
     {{"DEVICE", "The serial port, as /dev/ttyS0 or ttyS0."}},
     portOptions},
    {"port list", "show the ports", "Shows the ports that are defined.", portList},
    {"port remove",
     "remove a port",
     "Removes the definition of a port.",
     portRemove,
     {{"DEVICE", "The port as it was defined."}}},
    {"port packet-size",
     "set the largest packet of the link",
     "Sets the largest packet of the link, for all ports (default 1024).",
     portPacketSize,
     {{"BYTES", "%1. Small ones suit bad lines.", Count::One, packetSizeRange}}},
    {"abonent add",
     "tell an abonent's number and key",
     "Tells how an abonent is called and by which key it proves who it is, or changes what was told.\n"
     "Without a key the first call to it pins the key that answers.",
     abonentAdd,
     {abonentName},
     {{"number", "NUMBER", "The telephone number, as it goes behind ATD."},
      {"key", "TEXT", "Its key, as \"transport-host key\" shows it there; in place of one that is pinned."},
      {"port", "DEVICE", "Call through this port only; may be given several times (default any port)."}}},
    {"abonent list", "show the abonents and their keys",
     "Shows the abonents that are known, the fingerprints of their keys, and blocked keys.", abonentList},
    {"abonent forget-key",
     "forget the key of one that has a new one",
     "Forgets the key of an abonent that has a new one; the next call to it pins the key that answers.\n"
     "Safer is to ask for the new key and tell it: \"transport-host abonent add NAME --key TEXT\".",
     abonentForgetKey,
     {abonentName}},
    {"abonent block",
     "neither call an abonent nor let it in",
     "Neither calls an abonent nor lets it in; messages for it stay queued.",
     abonentBlock,
     {abonentName}},
    {"abonent unblock", "take that back", "Takes the block of an abonent back.", abonentUnblock, {abonentName}},
    {"abonent remove",
     "forget an abonent",
     "Forgets an abonent, its number and its key; messages for it stay queued.",
     abonentRemove,
     {abonentName}},
};

} // namespace

const std::vector<Command>& commandTable()
{
    return table;
}

} // namespace host
