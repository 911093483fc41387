// Answers from an SNMP agent, one datagram per part of the input, decoded and
// applied to a console's statistics the way the poller does; each answer that
// continues the interface-table walk is followed by the next GetNext request
// built from the identifier it returned.
#include "fuzz_input.h"

#include "snmp/snmp_poller.h"
#include "snmp/translate_snmp.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    SnmpPoller poller([] { return QString(); });
    for (const QByteArray &datagram : splitInput(data, size)) {
        const TranslateSNMP::SnmpReply reply = TranslateSNMP::convertSnmp(datagram);
        poller.convertSnmp(datagram);
        if (reply.kind == TranslateSNMP::SnmpReply::InterfaceValue) {
            InterfaceTable::converttolist(reply.key, reply.value, reply.physicalAddress);
            TranslateSNMP::serialise(TranslateSNMP::buildMessage(poller.community(), poller.state(), 0xA1));
            if (TranslateSNMP::snmpPacket().size() != TranslateSNMP::packetSize)
                std::abort();
        }
    }
    return 0;
}
