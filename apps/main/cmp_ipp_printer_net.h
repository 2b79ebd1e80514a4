// How cmp-ipp-printer presents itself on the network: the DNS-SD services and
// their TXT records (PWG 5100.14), made from the printer's own attributes, where
// to announce them for the address it listens on, and the names its
// certificate is for.
#ifndef CMP_IPP_PRINTER_NET_H
#define CMP_IPP_PRINTER_NET_H

#include <stdint.h>

#include <string>
#include <vector>

#include "cmp_ipp_dnssd.h"
#include "msg/cmp_ipp_attrs.h"

namespace printer_net {

// _ipp._tcp when plain HTTP is served, _ipps._tcp with TLS, both on `port`,
// each with the _print subtype IPP Everywhere clients browse for. The TXT keys:
// txtvers, qtotal, rp, ty, adminurl, note, product, pdl, Color, Duplex, UUID,
// PaperMax, kind, printer-type, URF (when the printer lists urf-supported), air
// (when uri-authentication-supported says basic), and TLS on _ipps._tcp.
std::vector<cmp_ipp_fe::DnssdService> printerServices(const cmp_ipp_attrs& printer, uint16_t port, bool plain,
                                                       bool tls);

// PaperMax for the largest media (hundredths of millimetres).
const char* paperMax(int32_t width, int32_t length);

// Where to announce a printer listening on this numeric address: every
// interface for a wildcard address, the loopback interface for a loopback
// address, else the interface that has the address; and the address family.
void announceScope(const std::string& bindAddress, int* interfaceIndex, int* family);

// This machine's name, with ".local" when mDNS is to resolve it.
std::string localHostName(bool mdns);

// The names a self-signed certificate is made for: the host in the printer's
// URIs first, then the other names a client on this machine or the local
// network may reach it by.
std::vector<std::string> certificateNames(const std::string& uriHost, const std::string& bindAddress);

// $XDG_STATE_HOME/cmp-ipp-printer, else ~/.local/state/cmp-ipp-printer, else ./state.
std::string defaultStateDirectory();

}  // namespace printer_net

#endif
