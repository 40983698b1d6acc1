#!/bin/sh
# Writes the captures that limits.vsim replays: many frames that differ in
# one field, more than a port may learn.
#   arp-257.pcap           257 ARP requests of 02:00:00:00:00:10 for
#                          10.1.0.1 ... 10.1.1.57
#   dhcp-request-129.pcap  129 DHCPREQUESTs of clients 02:00:00:02:00:00 ...
#                          02:00:00:02:00:80, xids 0x6000 ... 0x6080
#   dhcp-ack-129.pcap      the 129 DHCPACKs that answer them, 10.2.0.1 ...
#                          10.2.0.129, lease 3600 s
set -eu
here=$(cd "$(dirname "$0")" && pwd)
frames="python3 $here/../tools/frames.py"
$frames pcap "$here/arp-257.pcap" 257 arp request --spa '10.1.{i//200}.{i%200+1}'
$frames pcap "$here/dhcp-request-129.pcap" 129 dhcp request \
   --src '02:00:00:02:{i//256:02x}:{i%256:02x}' \
   --chaddr '02:00:00:02:{i//256:02x}:{i%256:02x}' --xid '{0x6000+i}'
$frames pcap "$here/dhcp-ack-129.pcap" 129 dhcp ack \
   --dst '02:00:00:02:{i//256:02x}:{i%256:02x}' \
   --chaddr '02:00:00:02:{i//256:02x}:{i%256:02x}' --xid '{0x6000+i}' \
   --yiaddr '10.2.{i//200}.{i%200+1}' --dip '10.2.{i//200}.{i%200+1}' --lease 3600
