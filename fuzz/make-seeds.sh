#!/bin/bash
# Writes the hand-made seed inputs of fuzz/corpus/. Run again after changing
# a seed here; inputs kept from crashes (crash-*, timeout-*, ...) are left
# alone.
set -euo pipefail

corpus=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)/corpus

seed() { # target name, bytes on stdin
    mkdir -p "$corpus/$1"
    cat >"$corpus/$1/$2"
}

# Repeats a byte (given as \xHH) count times.
repeat() {
    local i
    for ((i = 0; i < $2; ++i)); do printf '%b' "$1"; done
}

# --- information text (PRD file, Latin-1) ---
printf '[KORUX3]\r\nSN=1904001\r\nSNCapteur=S190400117\r\nTechnology=CsI\r\n' | seed information_text realistic
printf '[KORUX3]\nSN=1904001\n\n[Calibration]\nGain=1.25\nOffset=-3\n' | seed information_text lf-two-sections
printf 'SN=1\r[A]\r\n[B]\nK=V=W\r\nflag\r\n[]\r\nx=\r\n[' | seed information_text mixed-edges
printf '[Caf\xe9]\r\nNom=\xc9lise \xff\r\n' | seed information_text latin1
printf '\xff\xfe[\0A\0]\0\r\0\n\0k\0=\0v\0' | seed information_text utf16-bom
printf '' | seed information_text empty

# --- flash file headers (16 bytes: size, '<', ten header bytes, '>') ---
printf '\x00\x00\x01\x00<PRD KORUX3>' | seed flash_header present
printf '\x00\x3f\xff\xff<BTS KORUX3>' | seed flash_header largest
printf '\x00\x40\x00\x00<BTS KORUX3>' | seed flash_header size-limit
printf '\x00\x00\x00\x00<PRD KORUX3>' | seed flash_header no-file
repeat '\xff' 16 | seed flash_header erased
printf '\x00\x00\x00\x10 PRD KORUX3 ' | seed flash_header unframed

# --- shot counter area (big-endian slots, erased = FFFFFFFF) ---
{ printf '\x00\x00\x00\x28\x00\x00\x00\x29'; repeat '\xff' 248; } | seed shoot_counter counter-41
repeat '\xff' 256 | seed shoot_counter erased
{ printf '\x00\x00\x00\x05\x00\x00\x00\x07\x00\x00\x00\x07\xff\xff\xff\xfe'; repeat '\xff' 16; } | seed shoot_counter repeated-largest
printf '\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00' | seed shoot_counter zeros-partial-slot

# --- bitstream files ---
bitstream_header() { # date text
    printf '\xff\x00'
    printf '%s\0' 'Lattice Semiconductor Corporation Bitstream' 'Version: Diamond (64-bit) 3.12' \
        'Bitstream Status: Final' 'Design name: korux_top.ngd' 'Architecture: machxo2' \
        'Part: LCMXO2-4000HC-4TG144' "$1"
    printf '\xffKXBS\x00\x00\x00\x10'
    repeat '\x5a' 16
    printf '\x12\x34\x56\x78'
}
bitstream_header 'Date: Mon, 02 Mar 2020 10:00:00 +0000' | seed bitstream realistic
bitstream_header 'Date: Tue, 29 Feb 2028 23:59:59 -1200' | seed bitstream leap-day
bitstream_header 'Date: 31 Feb 2020 25:61:00 GMT' | seed bitstream bad-date
bitstream_header 'Date:' | seed bitstream short-date
{ printf '\xff\x00'; repeat 'A' 2100; } | seed bitstream no-terminator
printf '\x00\x00\x00\x00\x00\x00\x00\x00' | seed bitstream zeros
printf '' | seed bitstream empty

# --- status words (3 bytes) and Inside blocks (17 bytes) ---
printf '\x44\x6b\x09' | seed sensor_protocol status-armed
printf '\x48\xff\xff' | seed sensor_protocol status-image-ready
# marker 's', 70 kV, 7 mA, 125 ms set, 124 ms done, byte 7, 310 DAP, cone 2,
# 1520 air dose, cut 1, mode 0, byte 15, then the sum of bytes 1 to 14.
inside='\x73\x46\x07\x00\x7d\x00\x7c\x00\x01\x36\x02\x05\xf0\x01\x00\x00'
printf '%b' "${inside}\\x75" | seed sensor_protocol inside-ok
printf '%b' "${inside}\\x76" | seed sensor_protocol inside-bad-checksum
printf '\x53\x46\x07\x00\x7d\x00\x7c\x00\x01\x36\x02\x05\xf0\x01\x00\x00\x75' | seed sensor_protocol inside-bad-marker
printf '\x45\x01\x02' | seed sensor_protocol status-exposing

# --- oscilloscope reads (16-bit big-endian samples) ---
printf '\x01\xac\x02\x10\x03\xff\x01\x00\x00\x00\xff\xff' | seed oscilloscope samples
printf '\x01\xac\x02' | seed oscilloscope odd-length
printf '\x00\x00\x04\x00\x12\x34\xfe\xff\xff\x00' | seed oscilloscope full-read
repeat '\x02\x00' 512 | seed oscilloscope long-run
printf '' | seed oscilloscope empty

# --- scenario files ---
echo '{ "sensors": [ {} ] }' | seed scenario default
cat <<'JSON' | seed scenario foreign-and-order
{
  "comment": "enumeration with a foreign device in the middle",
  "sensors": [
    { "serial": "KX0101", "location": "0x1011" },
    { "serial": "KX0102", "location": "0x1021", "inside": true,
      "generator": { "kV": 60, "mA": 4, "checksumOk": false } }
  ],
  "foreign": [
    { "id": "0x04036001", "description": "USB <-> Serial", "serial": "FT4XYZ", "location": "0x1031" }
  ],
  "order": ["S0A", "S0B", "S0C", "S0D", "F0", "S1D", "S1C", "S1B", "S1A"]
}
JSON
cat <<'JSON' | seed scenario status-queue
{ "sensors": [ { "statusQueue": [ { "flags": "0x45", "diode": 700 }, { "flags": "0x45", "diode": 690 } ],
    "status": { "flags": "0x48" }, "adc": [620, 310, "775", "0x230"], "uniqueId": "0123456789ABCDEF",
    "exposure": { "auto": false, "delayMs": 10, "durationMs": 1, "doseRate": 1023 },
    "fpga": { "configured": false, "deviceId": "0x412B4043" } } ] }
JSON
cat <<'JSON' | seed scenario flash-contents
{ "linkTiming": false, "sensors": [ { "serial": "KX0201", "flash": {
    "erased": true,
    "PRD": { "text": "[KORUX3]\r\nSN=1904001\r\n" }, "ASS": { "hex": "00 11 22 ff" },
    "FFC": { "size": 64, "seed": 3, "header": "FFC" }, "counter": [41, "0xFFFFFFFF", 7],
    "bitstream": { "size": 256, "truncate": 100, "corrupt": true, "firstByte": 0,
      "date": "Date: Mon, 02 Mar 2020 10:00:00 +0000" },
    "timing": { "busyPolls": 2, "programUs": 10, "eraseUs": 20, "chipEraseUs": 30 } } } ] }
JSON
cat <<'JSON' | seed scenario faults
{ "sensors": [ {}, { "plugged": false } ],
  "faults": [ { "call": "FT_OpenEx", "nth": 1, "status": 2 }, { "callNumber": 10, "status": 4 },
    { "detail": 2 }, { "unplug": 1, "atCall": 40 } ] }
JSON
echo '{ "sensors": [ { "serail": "KX1" } ] }' | seed scenario unknown-key
echo '{ "sensors": [ { "flash": { "image": "KX0201-flash.bin" } } ] }' | seed scenario flash-image
echo '{ "sensors": [ { "status": { "diode": 1024 } } ] }' | seed scenario out-of-range
echo '{ "sensors": [ {}, { "location": "0x1012" } ] }' | seed scenario location-clash
echo '{ "sensors": [ { "flash": { "DPL": { "hex": "0g" }, "BTS": { "text": "" } } } ], "order": ["S1A", 3] }' \
    | seed scenario bad-hex
echo '{ "sensors": [ { "location": 4113.5 } ], "faults": [ { "unplug": 0 } ] ' | seed scenario truncated

# --- traces of bridge traffic (text, gzip, cut short) ---
trace_text() {
    cat <<'TRACE'
korux-trace 1
meta recorder korux-record%201
meta library /usr/local/lib/libft4222.so
call 1 t=869 d=19 f=FT_SetVIDPID a=7398,3 st=0
call 2 t=20399 d=9 f=FT_CreateDeviceInfoList st=0 o=4
call 3 t=20438 d=4 f=FT_GetDeviceInfoDetail a=0 st=0 o=2,11,484835331,4113 ot=KX0001A,KORUX/KORUX%b2%20A
call 4 t=71203 d=18 f=FT_OpenEx p=A a=4113,4 st=0 oh=0x5000
call 5 t=71210 d=3 f=FT_OpenEx s=KX0001A a=1 st=3
call 6 t=71234 d=2 f=FT4222_SetClock h=0x5000 p=A a=3 st=0
call 7 t=71241 d=8 f=FT4222_SPIMaster_MultiReadWrite h=0x5000 p=A a=4,0,3 w=a180cafe st=0 o=3 r=406b09
call 8 t=71245 d=1 f=FT4222_SPIMaster_Init h=0x5000 p=A a=4,1,0,0,1 st=-1000
call 9 t=71253 d=1 f=FT_Close h=0x5000 p=A st=0
end 9
TRACE
}
trace_text | seed trace session-text
trace_text | gzip -9 -n | seed trace session-gzip
trace_text | gzip -9 -n | head -c 150 | seed trace session-gzip-cut
trace_text | head -c 400 | seed trace session-text-cut
printf 'korux-trace 2\ncall 1 t=0 f=FT_Close st=0\n' | seed trace other-version
printf 'korux-trace 1\ncall 1 t=0 f=FT_Close st=0 w=0g r=%%zz\n' | seed trace bad-hex
printf 'korux-trace 1\ncall 1 t=0 f=FT_Close st=0 ot=%%41,,%%\nend 1\n' | seed trace bad-escape
printf '\x1f\x8b\x08\x00garbage' | seed trace damaged-gzip

# --- a shot's PNG (16-bit grey, sBIT 14, with the text chunks of its DICOM
# identity and anatomy), small; made with python3's zlib ---
png() { # name, width, height, bit depth, text chunks as key=value lines
    python3 - "$@" <<'PY'
import struct, sys, zlib
name, width, height, depth = sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), int(sys.argv[4])
def chunk(kind, data):
    return struct.pack('>I', len(data)) + kind + data + struct.pack('>I', zlib.crc32(kind + data) & 0xffffffff)
row = bytes(1 + width * depth // 8)
out = b'\x89PNG\r\n\x1a\n' + chunk(b'IHDR', struct.pack('>IIBBBBB', width, height, depth, 0, 0, 0, 0))
out += chunk(b'sBIT', bytes([14 if depth == 16 else 8]))
for line in sys.argv[5:]:
    key, value = line.split('=', 1)
    out += chunk(b'tEXt', key.encode('latin-1') + b'\0' + value.encode('latin-1'))
out += chunk(b'IDAT', zlib.compress(row * height)) + chunk(b'IEND', b'')
sys.stdout.buffer.write(out)
PY
}
identity=("DICOM Patient ID=PAT-A" "DICOM Patient Name=Able^Ann" "DICOM Study UID=2.25.1" "DICOM Study ID=20260304-101112"
    "DICOM Study Time=2026-03-04T10:11:12.000+01:00" "DICOM Processing Series UID=2.25.2"
    "DICOM Processing Series Number=1" "DICOM Processing Series Time=2026-03-04T10:11:12.000+01:00"
    "DICOM Processing Instance Number=1" "DICOM Processing Instance UID=2.25.3" "DICOM Presentation Series UID=2.25.4"
    "DICOM Presentation Series Number=2" "DICOM Presentation Series Time=2026-03-04T10:11:12.000+01:00"
    "DICOM Presentation Instance Number=1" "DICOM Presentation Instance UID=2.25.5")
png shot 16 20 16 "Creation Time=2026-03-04T10:11:12+01:00" "Anatomy=teeth=44,45;region=mandible;laterality=R" \
    "${identity[@]}" | seed shot_png shot
png preview 16 10 8 "Software=korux" | seed shot_png preview
png bad-anatomy 4 4 16 "Anatomy=teeth=99,14,44;region=jaw" "DICOM Patient ID=" | seed shot_png bad-anatomy
# A header that declares 16384 x 16384 16-bit pixels, and nothing after it.
printf '\x89PNG\r\n\x1a\n\0\0\0\x0dIHDR\0\0\x40\0\0\0\x40\0\x10\0\0\0\0\0\0\0\0' | seed shot_png huge-header
