#!/usr/bin/env python3
"""Builds the emulator profiles of this folder from the real module dumps.

Usage: make_profiles.py [DUMP_DIR]   (default: testdata/module-dumps of this repository)

Dump-based profiles keep the module's identity and advertisement bytes as read from the real
module; the volatile bytes of the capture (latched flags, TX disable, power control) are set back
to their power-on value. Constructed profiles start from the closest dump and change the fields
named in their comments. Every checksum is recomputed here; the emulator verifies them on load.
"""
import json
import os
import struct
import sys

DUMPS = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "testdata", "module-dumps")
OUT = os.path.dirname(os.path.abspath(__file__))


def load(name):
    data = []
    with open(os.path.join(DUMPS, name)) as f:
        for line in f:
            line = line.strip()
            if line and not line.startswith("#"):
                data += [int(x, 16) for x in line.split()]
    return data


def blocks(data):
    return [data[i:i + 128] for i in range(0, len(data), 128)]


def zeros():
    return [0] * 128


def put(block, offset, values, base=128):
    for i, v in enumerate(values):
        block[offset - base + i] = v & 0xFF


def put16(block, offset, value, base=128):
    put(block, offset, list(struct.pack(">H", value & 0xFFFF)), base)


def put_text(block, offset, text, size, base=128):
    put(block, offset, list(text.ljust(size).encode("ascii")[:size]), base)


def csum(block, first, last, base=128):
    return sum(block[first - base:last - base + 1]) & 0xFF


def hexs(block):
    assert len(block) == 128
    return "".join(f"{b:02x}" for b in block)


def thresholds(block, first, values):
    """Four big-endian u16/s16 thresholds (high alarm, low alarm, high warning, low warning)."""
    for i, v in enumerate(values):
        put16(block, first + 2 * i, int(round(v)))


# Alarm/warning thresholds in register units: temperature 1/256 degC, Vcc 100 uV, power
# 0.1 uW, bias 2 uA.
def temp(c):
    return int(round(c * 256)) & 0xFFFF


def vcc(v):
    return int(round(v * 10000))


def mw(p):
    return int(round(p * 10000))


def ma(i, multiplier=1):
    return int(round(i * 500 / multiplier))


SFF8636_WRITABLE = [
    {"page": "lower", "from": 86, "to": 92},    # TX disable, rate select, application select
    {"page": "lower", "from": 93, "to": 93, "mask": 15},  # power override/set, high power enables
    {"page": "lower", "from": 94, "to": 99},    # CDR and other controls
    {"page": "lower", "from": 100, "to": 106},  # interrupt masks
    {"page": "lower", "from": 119, "to": 126},  # password change / entry
]


def sff8636_page03(rx=(3.5, 0.05, 2.5, 0.1), bias=(80, 10, 75, 15), tx=(3.5, 0.1, 2.5, 0.2)):
    """SFF-8636 page 03h: thresholds 128 temperature, 144 Vcc, 176 RX power, 184 bias, 192 TX
    power (high alarm, low alarm, high warning, low warning)."""
    p = zeros()
    thresholds(p, 128, [temp(75), temp(-5), temp(70), temp(0)])
    thresholds(p, 144, [vcc(3.63), vcc(2.97), vcc(3.465), vcc(3.135)])
    thresholds(p, 176, [mw(x) for x in rx])
    thresholds(p, 184, [ma(x) for x in bias])
    thresholds(p, 192, [mw(x) for x in tx])
    return p


def sff8636_sums(page00):
    page00[191 - 128] = csum(page00, 128, 190)
    page00[223 - 128] = csum(page00, 192, 222)


def sff8636_power_on(lower):
    for i in range(3, 22):  # latched flags
        lower[i] = 0
    lower[86] = 0  # TX disable
    lower[93] = 0  # power control: LPMode pin governs, high power classes disabled
    lower[127] = 0


def sff8636_profile(name, description, source, lower, pages, lanes, monitors, extra_writable=()):
    sff8636_power_on(lower)
    sff8636_sums(pages["00"])
    writable = SFF8636_WRITABLE + list(extra_writable)
    if "02" in pages:
        writable.append({"page": "02", "from": 128, "to": 255})  # user EEPROM
    if "03" in pages:
        writable.append({"page": "03", "from": 226, "to": 255})  # channel controls, masks
    return {
        "name": name,
        "description": description,
        "source": source,
        "family": "sff8636",
        "lanes": lanes,
        "behaviour": {"i2c_not_ready_ms": 2000, "power_up_ms": 300, "monitor_period_ms": 100,
                      "unsupported_page": "reject"},
        "monitors": monitors,
        "writable": writable,
        "pages": {"lower": hexs(lower), **{k: hexs(v) for k, v in pages.items()}},
    }


def optical_monitors(seed, temp_c, bias_ma, tx_mw, rx_mw):
    return {
        "seed": seed,
        "temperature_c": {"nominal": temp_c, "noise": 0.5},
        "vcc_v": {"nominal": 3.3, "noise": 0.01},
        "bias_ma": {"nominal": bias_ma, "noise": bias_ma * 0.01},
        "tx_power_mw": {"nominal": tx_mw, "noise": tx_mw * 0.02},
        "rx_power_mw": {"nominal": rx_mw, "noise": rx_mw * 0.03},
    }


# The FS DAC reports temperature and Vcc (27.8 degC, 3.22 V in the dump) but no lane monitors.
PASSIVE = {"seed": 3104, "temperature_c": {"nominal": 27.8, "noise": 0.3},
           "vcc_v": {"nominal": 3.22, "noise": 0.005}, "bias_ma": {"nominal": 0, "noise": 0},
           "tx_power_mw": {"nominal": 0, "noise": 0}, "rx_power_mw": {"nominal": 0, "noise": 0}}


def write(stem, profile):
    with open(os.path.join(OUT, stem + ".json"), "w") as f:
        json.dump(profile, f, indent=2)
        f.write("\n")


# --- SFF-8636 -------------------------------------------------------------------------------

def lr4():
    lower, p00 = blocks(load("sff8636_qsfp28_100g_lr4_dell_3mfxg.hex"))
    # Dump: lower + page 00h. Byte 195 advertises pages 01h and 02h, byte 2 says paged memory,
    # so pages 01h (AST, empty), 02h (user EEPROM) and 03h (thresholds) are added.
    assert (p00[186 - 128] << 8 | p00[187 - 128]) * 0.05 == 1310.0  # nominal wavelength
    assert p00[195 - 128] == 0xDA  # pages 01h/02h, TX disable/fault, no rate select (bit 5)
    return sff8636_profile(
        "QSFP28 100GBASE-LR4 (Dell 3MFXG)", "SFF-8636, 4 lanes, 1310 nm, power class 5",
        "sff8636_qsfp28_100g_lr4_dell_3mfxg.hex", lower,
        {"00": p00, "01": zeros(), "02": zeros(), "03": sff8636_page03()}, 4,
        optical_monitors(3101, 38.0, 45.0, 1.0, 0.8))


def cwdm4():
    lower, p00 = blocks(load("sff8636_qsfp28_100g_cwdm4_lumentum_lq210cr.hex"))
    return sff8636_profile(
        "QSFP28 100G CWDM4 (Lumentum LQ210CR-CAA1)", "SFF-8636, 4 lanes, CWDM grid 1271..1331 nm",
        "sff8636_qsfp28_100g_cwdm4_lumentum_lq210cr.hex", lower,
        {"00": p00, "01": zeros(), "02": zeros(), "03": sff8636_page03()}, 4,
        optical_monitors(3102, 41.0, 38.0, 0.9, 0.7))


# PAM4 DSP pages 20h (monitors) and 21h (thresholds) as the daemon reads them
# (cage/register_fields.hpp): 16-bit values big-endian, per-lane values lane 0 first at a 2-byte
# stride. Page 20h: 128-131 firmware major, minor, build (2 bytes); 132 SNR (1/256 dB),
# 140 residual dispersion (signed, 0.1), 148 PAM4 level transition (1/256), 156 TEC current
# (signed, 0.1), 164 laser temperature difference (signed, 1/256 degC); 172..180 pre-FEC BER
# current, average, prior period, latched min, latched max; 182..190 the same for the
# uncorrected BER; 192 bit 0 clear BER statistics (host-writable, the emulator clears it).
# Page 21h: high alarm, low alarm, high warning, low warning of 128 SNR, 136 residual
# dispersion, 144 PAM4 level transition, 152 pre-FEC BER average, 160 TEC current, 168 laser
# temperature difference.
DSP_BER_CLEAR = 192
DSP_WRITABLE = [{"page": "20", "from": DSP_BER_CLEAR, "to": DSP_BER_CLEAR, "mask": 0x01}]


def ber(value):
    """A BER as the DSP word: 11-bit mantissa (bits 10..0), 5-bit exponent (bits 15..11) biased
    by 24, value = mantissa x 10^(exponent - 24). The smallest exponent that fits keeps the most
    digits."""
    if value == 0:
        return 0
    for exponent in range(-24, 8):
        mantissa = round(value / 10.0 ** exponent)
        if mantissa <= 0x7FF:
            assert mantissa > 0
            return (exponent + 24) << 11 | mantissa
    raise ValueError(f"BER {value} out of range")


def dsp_pages(lanes):
    """Static DSP readings, one entry per lane in `lanes` (dicts of snr_db, res_disp,
    level_trans, tec, temp_diff_c); the module-wide BER figures are shared by all profiles.
    Values of a healthy short link: SNR 21-24 dB, pre-FEC BER around 2e-6 (the KP4 FEC corrects
    up to about 2.4e-4), no uncorrected errors."""
    p20 = zeros()
    put(p20, 128, [3, 2])  # firmware 3.2
    put16(p20, 130, 1187)  # build
    for i, lane in enumerate(lanes):
        put16(p20, 132 + 2 * i, int(round(lane["snr_db"] * 256)))
        put16(p20, 140 + 2 * i, int(round(lane["res_disp"] * 10)))
        put16(p20, 148 + 2 * i, int(round(lane["level_trans"] * 256)))
        put16(p20, 156 + 2 * i, int(round(lane["tec"] * 10)))
        put16(p20, 164 + 2 * i, int(round(lane["temp_diff_c"] * 256)))
    # Pre-FEC: current, average, prior period, latched min, latched max; uncorrected all 0.
    for i, v in enumerate([2.4e-6, 2.1e-6, 1.9e-6, 1.2e-6, 6.3e-6]):
        put16(p20, 172 + 2 * i, ber(v))
    p21 = zeros()
    thresholds(p21, 128, [x * 256 for x in (35.0, 17.0, 33.0, 18.5)])       # SNR, dB
    thresholds(p21, 136, [x * 10 for x in (60.0, -60.0, 50.0, -50.0)])     # residual dispersion
    thresholds(p21, 144, [x * 256 for x in (30.0, 14.0, 28.0, 15.5)])      # PAM4 level transition
    thresholds(p21, 152, [ber(x) for x in (2.4e-4, 0, 1.0e-4, 0)])        # pre-FEC BER average
    thresholds(p21, 160, [x * 10 for x in (80.0, -80.0, 70.0, -70.0)])     # TEC current
    thresholds(p21, 168, [x * 256 for x in (3.0, -3.0, 2.0, -2.0)])        # laser temp. difference
    return p20, p21


def sff8636_identity(p00, pn, sn):
    assert len(pn) <= 16 and len(sn) <= 16
    put_text(p00, 148, "QSFPD-EMU", 16)
    put_text(p00, 168, pn, 16)
    put_text(p00, 184, "01", 2)
    put_text(p00, 196, sn, 16)


def fr1_pam4():
    """Constructed: a 100G single-lambda QSFP28 (4x25G NRZ host, DSP gearbox, one 100G PAM4
    1311 nm media lane) from the Dell LR4 image. SFF-8636 page 00h changes:
    192 extended compliance 26h (100G-FR or 100GBASE-FR1, SFF-8024 Table 4-4), 139 encoding 08h
    (PAM4), 186-187 1311 nm, 147 transmitter technology 60h (1310 nm EML), 195 bit 0 (pages
    20h-21h implemented) set with DSP pages 20h/21h, 222 extended baud rate 53.125 GBd in
    250 MBd units. Rate select 87/88 power on at AAh (100G on every lane)."""
    lower, p00 = blocks(load("sff8636_qsfp28_100g_lr4_dell_3mfxg.hex"))
    sff8636_identity(p00, "EMU-Q28-100G-FR1", "EMU0000000000001")
    put(p00, 139, [0x08])
    put(p00, 147, [0x60])
    put16(p00, 186, int(1311 / 0.05))
    put16(p00, 188, int(6.5 / 0.005))
    put(p00, 192, [0x26])
    p00[195 - 128] |= 0x01
    put(p00, 222, [212])  # 53.125 GBd / 0.25
    for i in range(34, 58):  # lane monitors: one lane left, the emulator writes lane 1
        lower[i] = 0
    lower[1] = 0x08  # revision compliance: SFF-8636 2.8..2.10 (pages 20h-21h need 2.10)
    lower[87] = lower[88] = 0xAA
    p20, p21 = dsp_pages([{"snr_db": 22.5, "res_disp": -1.5, "level_trans": 19.5, "tec": 8.5,
                           "temp_diff_c": 0.25}])
    return sff8636_profile(
        "QSFP28 100G-FR1 single lambda PAM4 with DSP (constructed)",
        "SFF-8636, 1 media lane (PAM4), ext. compliance 26h, pages 20h-21h implemented",
        "constructed from sff8636_qsfp28_100g_lr4_dell_3mfxg.hex", lower,
        {"00": p00, "01": zeros(), "02": zeros(), "03": sff8636_page03(), "20": p20, "21": p21},
        1, optical_monitors(3103, 45.0, 60.0, 1.6, 1.1), DSP_WRITABLE)


def sr2_pam4():
    """Constructed: 100GBASE-SR2, two 50G PAM4 lanes at 850 nm behind a DSP, on the Dell LR4
    image. Page 00h: 192 extended compliance 41h (50GBASE-SR, 100GBASE-SR2 or 200GBASE-SR4),
    139 encoding 08h (PAM4), 147 transmitter technology 00h (850 nm VCSEL, uncooled, PIN),
    130 connector 0Ch (MPO 1x12), lengths as the Finisar SR4 dump (142 SMF 0, 143 OM3 70 m,
    146 OM4 100 m), 186-187 850 nm, 188-189 +-10 nm, 195 bit 0 (pages 20h-21h) set,
    222 26.5625 GBd. Rate select 87/88 power on at AAh."""
    lower, p00 = blocks(load("sff8636_qsfp28_100g_lr4_dell_3mfxg.hex"))
    sff8636_identity(p00, "EMU-Q28-100G-SR2", "EMU0000000000002")
    put(p00, 130, [0x0C])
    put(p00, 139, [0x08])
    put(p00, 142, [0, 35, 0, 0, 50])
    put(p00, 147, [0x00])
    put16(p00, 186, int(850 / 0.05))
    put16(p00, 188, int(10 / 0.005))
    put(p00, 192, [0x41])
    p00[195 - 128] |= 0x01
    put(p00, 222, [106])  # 26.5625 GBd / 0.25
    for i in range(34, 58):  # lane monitors: the emulator writes lanes 1 and 2
        lower[i] = 0
    lower[1] = 0x08
    lower[87] = lower[88] = 0xAA
    # An uncooled VCSEL has no TEC: its current reads 0.
    p20, p21 = dsp_pages([
        {"snr_db": 23.4, "res_disp": 0.4, "level_trans": 20.1, "tec": 0, "temp_diff_c": 0.12},
        {"snr_db": 21.8, "res_disp": -0.3, "level_trans": 18.7, "tec": 0, "temp_diff_c": -0.09},
    ])
    # VCSEL bias is a few mA: thresholds of the LR4 (10 mA low alarm) would alarm.
    return sff8636_profile(
        "QSFP28 100GBASE-SR2 PAM4 with DSP (constructed)",
        "SFF-8636, 2 lanes (50G PAM4, 850 nm), ext. compliance 41h, pages 20h-21h implemented",
        "constructed from sff8636_qsfp28_100g_lr4_dell_3mfxg.hex", lower,
        {"00": p00, "01": zeros(), "02": zeros(),
         "03": sff8636_page03(rx=(2.0, 0.05, 1.6, 0.1), bias=(13, 3, 12, 4), tx=(2.0, 0.1, 1.6, 0.2)),
         "20": p20, "21": p21},
        2, optical_monitors(3105, 40.0, 7.5, 0.8, 0.7), DSP_WRITABLE)


def dwdm4():
    """Constructed: a 100G DWDM QSFP28, 4 lanes of 25G NRZ on the 100 GHz grid, from the Dell LR4
    image. Page 00h: 192 extended compliance 1Bh (100G 1550nm WDM, 4 wavelengths), 186-187
    31067 = 1553.35 nm (ITU 193.00 THz, 1553.33 nm, channel D9300, in 0.05 nm steps), 188-189
    +-0.1 nm, 147 transmitter technology 7Eh (1550 nm EML, active wavelength control, cooled,
    APD), 142 SMF length 40 km, 195 bit 5 (rate select implemented) set with 221 bit 3 and 141
    = 02h as the Lumentum CWDM4 dump declares it; 195 bit 0 clear and no pages 20h/21h; 221
    bit 2 clear. Rate select 87/88 power on at 00h."""
    lower, p00 = blocks(load("sff8636_qsfp28_100g_lr4_dell_3mfxg.hex"))
    # The part number field holds 16 characters: no hyphen before DWDM.
    sff8636_identity(p00, "EMU-Q28-100GDWDM", "EMU0000000000003")
    put(p00, 141, [0x02])
    put(p00, 142, [40])
    put(p00, 147, [0x7E])
    put16(p00, 186, 31067)
    put16(p00, 188, int(round(0.1 / 0.005)))
    put(p00, 192, [0x1B])
    p00[195 - 128] = (p00[195 - 128] | 0x20) & ~0x01
    p00[221 - 128] = (p00[221 - 128] | 0x08) & ~0x04
    lower[87] = lower[88] = 0x00
    return sff8636_profile(
        "QSFP28 100G DWDM 4 lanes (constructed)",
        "SFF-8636, 4 lanes, 1553.33 nm (193.00 THz), rate select implemented",
        "constructed from sff8636_qsfp28_100g_lr4_dell_3mfxg.hex", lower,
        {"00": p00, "01": zeros(), "02": zeros(), "03": sff8636_page03()}, 4,
        optical_monitors(3106, 48.0, 62.0, 1.2, 0.4))


def dac():
    lower, p00, p01, p02, p03 = blocks(load("sff8636_qsfpplus_dac_fs_c1907253451.hex"))
    assert p00[147 - 128] == 0xA0  # copper cable, unequalized
    return sff8636_profile(
        "QSFP+ passive copper DAC (FS Q28-PCxx)", "SFF-8636, 4 lanes, passive copper, temperature and Vcc only",
        "sff8636_qsfpplus_dac_fs_c1907253451.hex", lower,
        {"00": p00, "01": p01, "02": p02, "03": p03}, 4, PASSIVE)


# --- CMIS -----------------------------------------------------------------------------------

CMIS_WRITABLE_LOWER = [
    {"page": "lower", "from": 26, "to": 26},    # module global controls
    {"page": "lower", "from": 31, "to": 36},    # module-level masks
    {"page": "lower", "from": 122, "to": 125},  # password
]
CMIS_WRITABLE_PAGES = [
    {"page": "03", "from": 128, "to": 255},     # user EEPROM
    {"page": "b0:10", "from": 128, "to": 255},  # lane controls (the emulator keeps 143-144 write-only)
]


def app(host, media, host_lanes, media_lanes, assignment):
    return [host, media, host_lanes << 4 | media_lanes, assignment]


def cmis_apps(lower, apps):
    """Lower page 86..117: eight application descriptors, FFh host code ends the list."""
    for i in range(8):
        desc = apps[i] if i < len(apps) else ([0xFF, 0, 0, 0] if i == len(apps) else [0, 0, 0, 0])
        put(lower, 86 + 4 * i, desc, base=0)


def cmis_page01(wavelength_nm, tolerance_nm, smf_km, media_lanes_per_app, bias_multiplier_code,
                durations=None, rev=(1, 0), dp_durations=0x44, optical=True, page03=True):
    """CMIS page 01h: 130-131 hardware rev, 132 SMF length, 138-139 nominal wavelength (0.05 nm),
    140-141 tolerance (0.005 nm), 142 page 03h supported (bit 2; bits 1..0 = 0: bank 0 only, the
    only bank the profiles have), 144 DPDeinit (bits 7..4) / DPInit (bits 3..0) duration codes,
    155 TX disable supported, 157/158 TX/RX flags supported, 160 lane monitors and bias
    multiplier (bits 4..3), 167 ModulePwrDn (bits 7..4) / ModulePwrUp (bits 3..0) duration
    codes, 176.. media lane assignment per application, 255 checksum over 130..254."""
    p = zeros()
    put(p, 130, list(rev))
    put(p, 132, [int(smf_km * 10) & 0x3F])  # multiplier 0.1 km
    put16(p, 138, int(round(wavelength_nm / 0.05)))
    put16(p, 140, int(round(tolerance_nm / 0.005)))
    put(p, 142, [0x04 if page03 else 0x00])
    put(p, 144, [dp_durations])
    if optical:
        put(p, 155, [0x02])
        put(p, 157, [0x07, 0x06])
        put(p, 160, [0x07 | bias_multiplier_code << 3])
    if durations is not None:
        put(p, 167, [durations])  # ModulePwrDn/PwrUp duration codes
    put(p, 176, media_lanes_per_app)
    p[255 - 128] = csum(p, 130, 254)
    return p


def cmis_page02(tx=(3.5, 0.1, 2.5, 0.2), bias=(80, 10, 75, 15), rx=(3.5, 0.05, 2.5, 0.1),
                multiplier=1):
    """CMIS page 02h thresholds: 128 temperature, 136 Vcc, 176 TX power, 184 bias, 192 RX power."""
    p = zeros()
    thresholds(p, 128, [temp(75), temp(-5), temp(70), temp(0)])
    thresholds(p, 136, [vcc(3.465), vcc(3.135), vcc(3.45), vcc(3.15)])
    thresholds(p, 176, [mw(x) for x in tx])
    thresholds(p, 184, [ma(x, multiplier) for x in bias])
    thresholds(p, 192, [mw(x) for x in rx])
    return p


def dp_config(appsel, first_lane):
    """DPConfig byte of the staged and active control sets: AppSel bits 7..4, DataPathID (the
    data path's first lane, 0-based) bits 3..1, ExplicitControl bit 0 clear."""
    return appsel << 4 | first_lane << 1


def cmis_page10(host_lanes, appsel=1, deinit=0x00):
    """Page 10h: 128 DataPathDeinit (DataPathPwrUp before revision 4.0, hence FFh there), 145..152
    staged control set 0 with one data path of `host_lanes` lanes from lane 1."""
    p = zeros()
    put(p, 128, [deinit])
    put(p, 145, [dp_config(appsel, 0) if lane < host_lanes else 0 for lane in range(8)])
    return p


def cmis_page11(host_lanes, appsel=1):
    """Page 11h: 206..213 active control set as the staged one; states and monitors are the
    emulator's."""
    p = zeros()
    put(p, 206, [dp_config(appsel, 0) if lane < host_lanes else 0 for lane in range(8)])
    return p


def cmis_identity(p00, vendor, pn, rev, sn, date):
    put_text(p00, 129, vendor, 16)
    put_text(p00, 148, pn, 16)
    put_text(p00, 164, rev, 2)
    put_text(p00, 166, sn, 16)
    put_text(p00, 182, date, 8)


def cmis_power_on(lower):
    lower[26] = 0x40  # LowPwrAllowRequestHW set: the power-on default
    for i in range(8, 14):  # latched flags
        lower[i] = 0
    lower[126] = lower[127] = 0


def cmis_profile(name, description, source, lower, pages, lanes, monitors, extra_writable=(),
                 power_up_ms=800, power_down_ms=80, i2c_not_ready_ms=2000, behaviour=None):
    cmis_power_on(lower)
    pages["00"][222 - 128] = csum(pages["00"], 128, 221)
    flat = lower[2] & 0x80
    assert not flat or list(pages) == ["00"], "a flat-memory module has page 00h only"
    writable = CMIS_WRITABLE_LOWER if flat else CMIS_WRITABLE_LOWER + CMIS_WRITABLE_PAGES
    if not flat and "03" not in pages:
        writable = [w for w in writable if w["page"] != "03"]
    return {
        "name": name,
        "description": description,
        "source": source,
        "family": "cmis",
        "lanes": lanes,
        "behaviour": {"i2c_not_ready_ms": i2c_not_ready_ms, "power_up_ms": power_up_ms,
                      "power_down_ms": power_down_ms, "monitor_period_ms": 100,
                      "unsupported_page": "reject", **(behaviour or {})},
        "monitors": monitors,
        "writable": writable + list(extra_writable),
        "pages": {"lower": hexs(lower), **{k: hexs(v) for k, v in pages.items()}},
    }


def fr4():
    """400GBASE-FR4 adapted from the Avago 400G DR4 image (CMIS 4.0). Applications: 1 400GAUI-8
    (11h) / 400GBASE-FR4 (1Dh), 8 host and 4 media lanes, host lane 1 only; 2 100GAUI-2 (0Dh) /
    100G-FR or 100GBASE-FR1 (15h, SMF table), 2 host lanes and 1 media lane, host lanes 1, 3, 5, 7
    (55h) and any media lane (0Fh); 3 400GAUI-8 / vendor-specific media code C0h (named by the
    operator's application file), 8/4 lanes. Connector LC (07h). Page 01h: DPDeinit < 100 ms,
    DPInit < 500 ms (144 = 45h); ModulePwrDn < 100 ms, ModulePwrUp < 1 s (167 = 46h), which the
    80 ms and 800 ms of the behaviour keep. RX output pre-cursor, post-cursor and amplitude
    controls and RX auto squelch disable are advertised (page 01h 162 = 1Ch, 156 bit 2)."""
    lower, p00 = blocks(load("cmis_qsfpdd_400g_dr4_avago_afct93drphz_fd2038fg0fk.hex"))
    assert lower[0] == 0x18 and lower[1] == 0x40
    cmis_apps(lower, [app(0x11, 0x1D, 8, 4, 0x01), app(0x0D, 0x15, 2, 1, 0x55),
                      app(0x11, 0xC0, 8, 4, 0x01)])
    lower[85] = 0x02  # single-mode fibre media codes
    cmis_identity(p00, "QSFPD-EMU", "EMU-QDD-400G-FR4", "01", "EMU0000000000004", "201007")
    put(p00, 203, [0x07])
    p01 = cmis_page01(1301, 6.5, 2, [0x01, 0x0F, 0x01], 0, durations=0x46, dp_durations=0x45)
    put(p01, 162, [0x1C])
    put(p01, 156, [p01[156 - 128] | 0x04])
    return cmis_profile(
        "QSFP-DD 400G-FR4 (constructed from Avago AFCT-93DRPHZ)", "CMIS 4.0, 8 host / 4 media lanes",
        "adapted from cmis_qsfpdd_400g_dr4_avago_afct93drphz_fd2038fg0fk.hex", lower,
        {"00": p00, "01": p01,
         "02": cmis_page02(), "03": zeros(), "b0:10": cmis_page10(8), "b0:11": cmis_page11(8)}, 4,
        optical_monitors(4001, 42.0, 55.0, 1.4, 1.0))


# --- CMIS modules as dumped -------------------------------------------------------------------
# Lower memory and page 00h are the dump's (volatile bytes back at power-on values, checksum
# unchanged as it covers identity only). The dumps hold no other page: a paged module gets the
# pages every paged CMIS module has (01h, 02h, 10h, 11h; 03h where its page 01h says so), built
# here and marked as such in the README.

def dr4(dump, seed, temp_c, revision_major):
    lower, p00 = blocks(load(dump))
    assert lower[0] == 0x18 and lower[1] >> 4 == revision_major and not lower[2] & 0x80
    n_apps = next(i for i in range(8) if lower[86 + 4 * i] in (0x00, 0xFF))
    media = [0x01, 0x0F][:n_apps]  # 400G: media lanes from 1; 100G-FR breakout: any media lane
    # Revision 3.x: byte 128 is DataPathPwrUp (set = run), so power-on FFh keeps the data paths
    # running as DataPathDeinit 00h does from revision 4.0.
    deinit = 0xFF if revision_major < 4 else 0x00
    pages = {"00": p00, "01": cmis_page01(1311, 6.5, 0.5, media, 0, dp_durations=0x45),
             "02": cmis_page02(), "03": zeros(), "b0:10": cmis_page10(8, deinit=deinit),
             "b0:11": cmis_page11(8)}
    return lower, pages, optical_monitors(seed, temp_c, 50.0, 1.5, 1.1)


def dr4_avago():
    dump = "cmis_qsfpdd_400g_dr4_avago_afct93drphz_fd2038fg0fk.hex"
    lower, pages, mon = dr4(dump, 4101, 31.2, 4)
    return cmis_profile("QSFP-DD 400G-DR4 (Avago AFCT-93DRPHZ-AZ2)",
                        "CMIS 4.0, 400GAUI-8 / 400GBASE-DR4 and 100GAUI-2 / 100G-FR breakout",
                        dump, lower, pages, 4, mon, power_up_ms=1500, power_down_ms=200)


def dr4_innolight():
    dump = "cmis_qsfpdd_400g_dr4_innolight_t-dp4cnh.hex"
    lower, pages, mon = dr4(dump, 4102, 36.0, 3)
    return cmis_profile("QSFP-DD 400G-DR4 (Innolight T-DP4CNH-N00)",
                        "CMIS 3.0 (DataPathPwrUp polarity), 400GAUI-8 / 400GBASE-DR4", dump, lower,
                        pages, 4, mon, power_up_ms=1500, power_down_ms=200)


# Passive copper: no lane monitors; the dumps with temperature and Vcc report them.
def copper_monitors(seed, temp_c, vcc_v):
    return {"seed": seed, "temperature_c": {"nominal": temp_c, "noise": 0.3 if temp_c else 0},
            "vcc_v": {"nominal": vcc_v, "noise": 0.005 if vcc_v else 0},
            "bias_ma": {"nominal": 0, "noise": 0}, "tx_power_mw": {"nominal": 0, "noise": 0},
            "rx_power_mw": {"nominal": 0, "noise": 0}}


def flat_copper(dump, name, description, seed):
    lower, p00 = blocks(load(dump))
    assert lower[0] == 0x18 and lower[2] & 0x80 and lower[85] == 0x03
    return cmis_profile(name, description, dump, lower, {"00": p00}, 8,
                        copper_monitors(seed, 0, 0), i2c_not_ready_ms=500, power_up_ms=0,
                        power_down_ms=0)


def cr8_amphenol():
    return flat_copper("cmis_qsfpdd_400g_cr8_amphenol_ndyyyf.hex",
                       "QSFP-DD 400G-CR8 passive copper (Amphenol NDYYYF-0001)",
                       "CMIS 3.0, flat memory, eight copper applications", 4201)


def dac_fithonteng():
    return flat_copper("cmis_qsfpdd_dac_fithonteng_cu4ep54_flatmem.hex",
                       "QSFP-DD passive copper (FIT HON TENG CU4EP54-01000-EF)",
                       "CMIS 3.0, flat memory, one application (50GBASE-CR), no monitors", 4202)


def dac_cisco():
    """Paged CMIS 4.0 passive copper cable whose descriptors 1..7 are empty (host code 00h) and
    8 is 400GAUI-8 (host lane assignment 00h as dumped). No default application: staged and
    active sets hold AppSel 0 until the host applies 8. Temperature and Vcc as dumped (23 degC,
    3.328 V)."""
    dump = "cmis_qsfpdd_dac_cisco_68-103205-02_sparse_apps.hex"
    lower, p00 = blocks(load(dump))
    assert lower[0] == 0x18 and not lower[2] & 0x80 and lower[114] == 0x11
    p01 = cmis_page01(0, 0, 0, [0] * 8, 0, dp_durations=0x11, optical=False, page03=False)
    # The dump has no page 01h: the list ends after descriptor 8 (host code FFh at 223), as a
    # module with fewer than fifteen applications ends it.
    put(p01, 223, [0xFF])
    pages = {"00": p00, "01": p01,
             "02": cmis_page02(), "b0:10": cmis_page10(0), "b0:11": cmis_page11(0)}
    return cmis_profile("QSFP-DD passive copper (Cisco 68-103205-02)",
                        "CMIS 4.0, only application descriptor 8 populated", dump, lower, pages, 8,
                        copper_monitors(4203, 23.0, 3.328), i2c_not_ready_ms=500,
                        power_up_ms=100, power_down_ms=20)


ZR_WRITABLE = [
    {"page": "b0:12", "from": 128, "to": 167},  # grid, channel, fine tuning
    {"page": "b0:12", "from": 200, "to": 215},  # target output power
    {"page": "C0", "from": 129, "to": 129, "mask": 0x01},  # pulse shaping
    {"page": "C0", "from": 164, "to": 180},     # custom RX thresholds and their enables
    {"page": "C0", "from": 202, "to": 202, "mask": 0x07},  # PRBS control (bit 2 self-clears)
    {"page": "C0", "from": 203, "to": 203},     # PRBS pattern
    {"page": "2F", "from": 144, "to": 144},     # PM / VDM freeze request (bit 7)
]

# Grid codes of page 12h byte 128 bits 7..4 and their bit in page 04h byte 128 (1 << code), the
# channel step in GHz (75 GHz counts 25 GHz steps) and where page 04h keeps the channel bounds.
GRIDS = {3.125: (0, 3.125), 6.25: (1, 6.25), 12.5: (2, 12.5), 25: (3, 25), 50: (4, 50),
         100: (5, 100), 33: (6, 100 / 3), 75: (7, 25)}


def coherent_pages(grids, low_thz, high_thz, pmin_dbm, pmax_dbm, target_dbm):
    """C-CMIS tunable laser pages. Page 04h: 128 supported grids (bit = 1 << grid code), 130 +
    4 code / 132 + 4 code lowest/highest channel of each advertised grid (signed, steps from
    193.1 THz), 198/200 min/max programmable output power (signed 0.01 dBm). Page 12h: 128 grid
    spacing lane 1 (bits 7..4, 7 = 75 GHz), 136 channel lane 1, 168 current frequency lane 1
    (u32, MHz), 200 target output power lane 1 (0.01 dBm), 222 tuning status, 230 summary, 231
    latched tuning flags."""
    p04 = zeros()
    for g in grids:
        code, step = GRIDS[g]
        p04[0] |= 1 << code
        low = -int((193.1 - low_thz) * 1000 / step + 1e-6)
        high = int((high_thz - 193.1) * 1000 / step + 1e-6)
        if g == 75:  # a 75 GHz channel is a multiple of 3 steps of 25 GHz
            low, high = -(-low // 3 * 3), high // 3 * 3
        put16(p04, 130 + 4 * code, low)
        put16(p04, 132 + 4 * code, high)
    put16(p04, 198, int(round(pmin_dbm * 100)))
    put16(p04, 200, int(round(pmax_dbm * 100)))
    p12 = zeros()
    put(p12, 128, [0x70])
    put16(p12, 136, 0)
    put(p12, 168, list(struct.pack(">I", 193_100_000)))
    put16(p12, 200, int(round(target_dbm * 100)))
    return p04, p12


def dbm100(x):
    return int(round(x * 100))


def coherent_dsp_pages():
    """Vendor pages of the DSP (docs/coherent-registers.md). C0h: 128 capabilities (custom RX
    thresholds, pulse shaping, PRBS), 129 pulse shaping on, 164..178 custom thresholds with their
    bounds at 182..200 (maximum, minimum; 0.01 dBm), 203 pattern PRBS31. C1h PRBS counters 0,
    C2h/C3h client PM all ones until a data path was up; the emulator writes the live bytes."""
    c0 = zeros()
    put(c0, 128, [0x07, 0x01])
    for at, v in [(164, 2.0), (166, -24.0), (168, 0.0), (170, -0.5), (172, -20.0),
                  (174, -19.5), (176, -25.0), (178, -26.0)]:
        put16(c0, at, dbm100(v))
    for at, (hi, lo) in [(182, (5.0, -10.0)), (186, (-5.0, -30.0)), (190, (3.0, -15.0)),
                         (194, (-8.0, -28.0)), (198, (-15.0, -30.0))]:
        put16(c0, at, dbm100(hi))
        put16(c0, at + 2, dbm100(lo))
    return {"C0": c0, "C1": zeros(), "C2": [0xFF] * 128, "C3": [0xFF] * 128,
            "2F": zeros(), "34": zeros(), "35": zeros()}


def coherent_model(tuning_ms, ber, cd_search, **monitors):
    """The "coherent" object of a profile: laser tuning time, error rates, the CD search range
    and the line monitors' nominal values and noise (emu/profiles/README.md)."""
    model = {"tuning_ms": tuning_ms, "lock_delay_ms": 300, "pre_fec_ber": ber,
             "uncorrectable_per_s": 0.0, "prbs_ber": 1e-12, "host_ber": 1e-9,
             "cd_high_range_ps_nm": 2400, "cd_search_low_ps_nm": -cd_search,
             "cd_search_high_ps_nm": cd_search, "laser_age_pct": 3,
             "q_db": {"nominal": 9.5, "noise": 0.1}, "q_margin_db": {"nominal": 3.2, "noise": 0.1},
             "osnr_db": {"nominal": 34.0, "noise": 0.3}, "esnr_db": {"nominal": 18.5, "noise": 0.2},
             "cd_ps_nm": {"nominal": 1600, "noise": 5}, "dgd_ps": {"nominal": 4.0, "noise": 0.5},
             "pdl_db": {"nominal": 0.8, "noise": 0.1}, "cfo_mhz": {"nominal": -120, "noise": 20},
             "sop_roc_krad_s": {"nominal": 5, "noise": 1},
             "errored_frames": {"nominal": 1e-9, "noise": 5e-10},
             "signal_below_total_db": 0.3}
    model.update(monitors)
    return model


def coherent(revision, name, apps, media_lane_assign, pmin, pmax, target, seed, tx_mw, durations,
             tx_limits=(0.4, 0.05, 0.32, 0.063), grids=(75,), low_thz=191.375, high_thz=196.1):
    lower, p00 = blocks(load("cmis_qsfpdd_400g_dr4_avago_afct93drphz_fd2038fg0fk.hex"))
    lower[1] = revision
    cmis_apps(lower, apps)
    lower[85] = 0x02
    cmis_identity(p00, "QSFPD-EMU", name, "01", f"EMU00000000{revision:05x}", "240101")
    put(p00, 200, [0xE0, 80])  # power class 8, 20 W max (0.25 W units)
    put(p00, 203, [0x07])      # LC
    put(p00, 212, [0x10])      # media interface technology: C-band tunable laser
    p04, p12 = coherent_pages(grids, low_thz, high_thz, pmin, pmax, target)
    p01 = cmis_page01(0, 0, 0, media_lane_assign, 2, durations)
    p01[155 - 128] |= 0x40  # TransmitterIsTunable: pages 04h and 12h
    p01[255 - 128] = csum(p01, 130, 254)
    pages = {"00": p00, "01": p01,
             "02": cmis_page02(tx=tx_limits, bias=(300, 50, 280, 60),
                               rx=(1.0, 0.0016, 0.8, 0.002), multiplier=4),
             "03": zeros(), "04": p04, "b0:10": cmis_page10(8), "b0:11": cmis_page11(8),
             "b0:12": p12, **coherent_dsp_pages()}
    return lower, pages, optical_monitors(seed, 55.0, 150.0, tx_mw, 0.05)


def zr():
    """400ZR (CMIS 4.0 + C-CMIS), 1 media lane: app 1 400GAUI-8 / 400ZR DWDM amplified (3Eh),
    2 400GAUI-8 / ZR400-OFEC-16QAM (46h), 3 100GAUI-2 x6 host lanes / ZR300-OFEC-8QAM (47h),
    4 100GAUI-2 x4 / ZR200-OFEC-QPSK (48h), 5 100GAUI-2 x2 / ZR100-OFEC-QPSK (49h); grids 100,
    75, 50 and 33 GHz over 191.3..196.1 THz; output power -10..-6 dBm; tuning 1.2 s."""
    lower, pages, mon = coherent(0x40, "EMU-QDD-400G-ZR",
                                 [app(0x11, 0x3E, 8, 1, 0x01), app(0x11, 0x46, 8, 1, 0x01),
                                  app(0x0D, 0x47, 6, 1, 0x01), app(0x0D, 0x48, 4, 1, 0x01),
                                  app(0x0D, 0x49, 2, 1, 0x01)],
                                 [0x01] * 5, -10.0, -6.0, -10.0, 4002, 0.1, None,
                                 grids=(100, 75, 50, 33), low_thz=191.3, high_thz=196.1)
    profile = cmis_profile("QSFP-DD 400ZR coherent tunable (constructed)",
                           "CMIS 4.0, C-CMIS pages 04h/12h/2Fh/34h/35h, DSP pages C0h-C3h, "
                           "1 media lane", "constructed from CMIS and C-CMIS tables on the Avago "
                           "image", lower, pages, 1, mon, ZR_WRITABLE, power_up_ms=1500,
                           power_down_ms=200)
    profile["coherent"] = coherent_model(1200, 2.0e-4, 2400)
    return profile


def zr_plus():
    """400ZR+ (CMIS 5.0, revision 50h): app 1 400GAUI-8 / ZR400-OFEC-16QAM (46h), app 2
    400GAUI-8 / 400ZR DWDM (3Eh), app 3 100GAUI-2 (0Dh) / ZR100-OFEC-QPSK (49h), 2 host lanes;
    output power -15..+1 dBm; page 01h byte 167 power up/down duration codes 6 (< 1 s) / 5
    (< 500 ms); tuning 2 s."""
    lower, pages, mon = coherent(0x50, "EMU-QDD-400G-ZRP",
                                 [app(0x11, 0x46, 8, 1, 0x01), app(0x11, 0x3E, 8, 1, 0x01),
                                  app(0x0D, 0x49, 2, 1, 0x01)],
                                 [0x01, 0x01, 0x01], -15.0, 1.0, 0.0, 5001, 1.0, 0x56,
                                 tx_limits=(2.0, 0.02, 1.6, 0.03))
    profile = cmis_profile("QSFP-DD 400ZR+ coherent tunable (constructed)",
                           "CMIS 5.0, C-CMIS pages 04h/12h, 1 media lane, OpenZR+ modes",
                           "constructed from CMIS and C-CMIS tables on the Avago image", lower,
                           pages, 1, mon, ZR_WRITABLE, power_up_ms=900, power_down_ms=400)
    profile["coherent"] = coherent_model(2000, 5.0e-4, 50000, cd_ps_nm={"nominal": 8500,
                                                                        "noise": 20})
    return profile


def f16(value):
    """CMIS F16: mantissa (bits 10-0) x 10^(exponent (bits 15-11) - 24), smallest exponent that
    fits, as the emulator encodes it."""
    if value <= 0:
        return 0
    for exponent in range(32):
        mantissa = round(value / 10.0 ** (exponent - 24))
        if mantissa <= 2047:
            return exponent << 11 | mantissa
    return 0xFFFF


# VDM observables of a CMIS 5 coherent module, by group: (type ID, threshold-set ID). Group 1
# laser, modulator and DSP observables; group 2 FEC statistics, media and host.
VDM_GROUPS = [
    [(1, 0), (2, 1), (3, 2), (4, 3), (5, 4), (7, 5), (128, 6), (129, 6), (130, 6), (131, 6),
     (132, 7), (133, 7), (137, 8), (142, 9), (143, 10), (144, 11), (145, 11), (147, 12),
     (148, 13), (149, 14)],
    [(8, 0), (6, 1)] + [(t, 2 if t < 17 and t % 2 else 3 if t < 17 else 4 if t < 25 and t % 2
                         else 5 if t < 25 else 6) for t in range(9, 27)],
]
# Threshold sets per group (high alarm, low alarm, high warning, low warning) as register values:
# LSBs of the CMIS VDM table (S16/U16 units, F16 encoded).
PCT_S = 32767 / 100
PCT_U = 65535 / 100
VDM_THRESHOLDS = [
    {0: (90, 0, 80, 0), 1: (90 * PCT_S, -90 * PCT_S, 80 * PCT_S, -80 * PCT_S),
     2: (180, -180, 150, -150), 3: (75 * 256, 10 * 256, 70 * 256, 15 * 256),
     4: (60 * 256, 10 * 256, 55 * 256, 12 * 256), 5: (60 * 256, 10 * 256, 55 * 256, 12 * 256),
     6: (95 * PCT_U, 5 * PCT_U, 90 * PCT_U, 10 * PCT_U),
     7: (95 * PCT_U, 5 * PCT_U, 90 * PCT_U, 10 * PCT_U), 8: (50000, 0, 40000, 0),
     9: (30 * PCT_U, 0, 25 * PCT_U, 0), 10: (300, -1800, 200, -1600),
     11: (300, -2500, 0, -2200), 12: (400, 80, 350, 100),
     13: (90 * PCT_S, -90 * PCT_S, 80 * PCT_S, -80 * PCT_S), 14: (500, 0, 400, 0)},
    {0: (60 * 256, 10 * 256, 55 * 256, 12 * 256), 1: (60 * 256, 10 * 256, 55 * 256, 12 * 256),
     2: (f16(1e-2), 0, f16(5e-3), 0), 3: (f16(1e-5), 0, f16(1e-6), 0),
     4: (f16(1e-6), 0, f16(1e-8), 0), 5: (f16(1e-6), 0, f16(1e-8), 0)},
]


def with_vdm(profile):
    """CMIS 5 VDM on a profile: page 01h byte 142 bit 6 (checksum 255 again), descriptors 20h-21h
    (byte 2n threshold-set ID bits 7-4 and lane - 1 bits 3-0, byte 2n+1 type), samples 24h-25h and
    flags 2Ch (the emulator's), thresholds 28h-29h, masks 2Dh (writable), 2Fh: 128 groups
    supported minus one, 144 bit 7 freeze request (writable); and the CMIS 5 coherent page C8h
    (fault flags, post-FEC BER; the emulator's)."""
    pages = profile["pages"]
    p01 = list(bytes.fromhex(pages["01"]))
    p01[142 - 128] |= 0x40
    p01[255 - 128] = csum(p01, 130, 254)
    pages["01"] = hexs(p01)
    for group, observables in enumerate(VDM_GROUPS):
        desc, limits = zeros(), zeros()
        for slot, (kind, tset) in enumerate(observables):
            put(desc, 128 + 2 * slot, [tset << 4, kind])
        for tset, values in VDM_THRESHOLDS[group].items():
            thresholds(limits, 128 + 8 * tset, values)
        pages[f"{0x20 + group:02X}"] = hexs(desc)
        pages[f"{0x24 + group:02X}"] = hexs(zeros())
        pages[f"{0x28 + group:02X}"] = hexs(limits)
    control = zeros()
    put(control, 128, [len(VDM_GROUPS) - 1])
    pages.update({"2C": hexs(zeros()), "2D": hexs(zeros()), "2F": hexs(control),
                  "C8": hexs(zeros())})
    profile["writable"] += [{"page": "2D", "from": 128, "to": 255},
                            {"page": "2F", "from": 144, "to": 144}]
    return profile


# --- QSFP-to-SFP converter ------------------------------------------------------------------

def converter_sfp_sr():
    a0l, a0u, a2l, a2u = blocks(load("sff8472_sfpplus_10g_sr_finisar_ftlx8571d3bcl_auj0rcj.hex"))
    assert a0l[0] == 0x03 and a0l[92] & 0x40
    # SFF-8472 checksums: A0h 63 over 0..62, 95 over 64..94; A2h 95 over 0..94.
    assert csum(a0l, 0, 62, 0) == a0l[63] and csum(a0l, 64, 94, 0) == a0l[95]
    a2l[110] &= 0x00  # status/control: the emulator drives the state bits
    a2l[95] = csum(a2l, 0, 94, 0)
    a2l[127] = 0
    return {
        "name": "QSFP-to-SFP converter with 10GBASE-SR SFP+ (Finisar FTLX8571D3BCL)",
        "description": "SFF-8472 behind a QSA: A0h at 50h, A2h at 51h",
        "source": "sff8472_sfpplus_10g_sr_finisar_ftlx8571d3bcl_auj0rcj.hex",
        "family": "sff8472-converter",
        "lanes": 1,
        "behaviour": {"i2c_not_ready_ms": 300, "power_up_ms": 300, "monitor_period_ms": 100,
                      "unsupported_page": "reject"},
        "monitors": optical_monitors(8472, 33.0, 7.5, 0.55, 0.5),
        "writable": [
            {"page": "a2:lower", "from": 110, "to": 110, "mask": 0x48},  # soft TX disable, soft RS(0)
            {"page": "a2:lower", "from": 118, "to": 118, "mask": 0x08},  # soft RS(1)
            {"page": "a2:lower", "from": 123, "to": 126},              # password
            {"page": "a2:00", "from": 128, "to": 247},                 # user EEPROM
        ],
        "pages": {"a0:lower": hexs(a0l), "a0:00": hexs(a0u), "a2:lower": hexs(a2l),
                  "a2:00": hexs(a2u)},
    }


# SFP+ modules behind the QSA, one function each. A0h/A2h as dumped apart from the volatile A2h
# status byte 110 (the emulator drives its state bits) and the checksums recomputed here.
SFP_WRITABLE = [
    {"page": "a2:lower", "from": 110, "to": 110, "mask": 0x48},  # soft TX disable, soft RS(0)
    {"page": "a2:lower", "from": 118, "to": 118, "mask": 0x08},  # soft RS(1)
    {"page": "a2:lower", "from": 123, "to": 126},              # password
    {"page": "a2:00", "from": 128, "to": 247},                 # user EEPROM
]


def sff8472_sums(a0l, a2l=None):
    a0l[63] = csum(a0l, 0, 62, 0)
    a0l[95] = csum(a0l, 64, 94, 0)
    if a2l is not None:
        a2l[95] = csum(a2l, 0, 94, 0)


def sfp_profile(name, description, source, pages, monitors, writable=(), behaviour=None):
    b = {"i2c_not_ready_ms": 300, "power_up_ms": 300, "monitor_period_ms": 100,
         "unsupported_page": "reject"}
    b.update(behaviour or {})
    return {
        "name": name,
        "description": description,
        "source": source,
        "family": "sff8472-converter",
        "lanes": 1,
        "behaviour": b,
        "monitors": monitors,
        "writable": list(writable),
        "pages": {k: hexs(v) for k, v in pages.items()},
    }


def sfp_dump(name):
    data = load(name)
    a0l, a0u = data[0:128], data[128:256]
    assert a0l[0] == 0x03
    assert csum(a0l, 0, 62, 0) == a0l[63] and csum(a0l, 64, 94, 0) == a0l[95]
    a2 = blocks(data[256:]) if len(data) > 256 else None
    return a0l, a0u, a2


def converter_sfp_lr():
    """10GBASE-LR OEM SFP-10GB-LR: the dump as captured (RX dark in the capture; the emulator's
    RX monitor gives it light)."""
    src = "sff8472_sfpplus_10g_lr_oem_yaoy1060.hex"
    a0l, a0u, (a2l, a2u) = sfp_dump(src)
    a2l[110] = 0
    a2l[127] = 0
    sff8472_sums(a0l, a2l)
    return sfp_profile("QSFP-to-SFP converter with 10GBASE-LR SFP+ (OEM SFP-10GB-LR)",
                       "SFF-8472 behind a QSA: A0h at 50h, A2h at 51h", src,
                       {"a0:lower": a0l, "a0:00": a0u, "a2:lower": a2l, "a2:00": a2u},
                       optical_monitors(8473, 34.5, 36.0, 0.52, 0.3), SFP_WRITABLE)


def tunable_page02(first_ghz, last_ghz, grid_ghz, channel):
    """SFF-8690 A2h page 02h: 128 features (bit 0 tuning by channel number), 132..139 first and
    last frequency (THz, then 0.1 GHz), 140 grid (0.1 GHz), 144 channel number set."""
    p = zeros()
    put(p, 128, [0x01])
    for at, ghz in ((132, first_ghz), (136, last_ghz)):
        put16(p, at, ghz // 1000)
        put16(p, at + 2, (ghz % 1000) * 10)
    put16(p, 140, grid_ghz * 10)
    put16(p, 144, channel)
    return p


def converter_sfp_tunable_dwdm():
    """Constructed on the Flexoptix P.B1696.10.DA image (a 1330 nm module as dumped): a tunable
    10G DWDM SFP+, C band 191.50..196.10 THz on the 50 GHz grid (93 channels), starting on
    channel 33 = 193.10 THz (1552.52 nm)."""
    src = "sff8472_sfpplus_10g_flexoptix_p.b1696.10.da.hex"
    a0l, a0u, (a2l, a2u) = sfp_dump(src)
    put_text(a0l, 20, "QSFPD-EMU", 16, 0)
    put_text(a0l, 40, "EMU-SFP-T10-DWDM", 16, 0)
    put_text(a0l, 68, "EMU0000000000010", 16, 0)
    put(a0l, 60, [1552 >> 8, 1552 & 0xFF, 52], 0)  # nominal wavelength of the start channel
    a0l[65] |= 0x40  # tunable transmitter (SFF-8472 Table 8-3)
    a2l[110] = 0
    a2l[127] = 0
    sff8472_sums(a0l, a2l)
    page02 = tunable_page02(191500, 196100, 50, 33)
    writable = SFP_WRITABLE + [{"page": "a2:02", "from": 144, "to": 147},  # channel, wavelength
                               {"page": "a2:02", "from": 151, "to": 151}]  # TX dither
    return sfp_profile("QSFP-to-SFP converter with tunable 10G DWDM SFP+ (constructed)",
                       "SFF-8472 + SFF-8690 behind a QSA; tuning takes 1.5 s", src,
                       {"a0:lower": a0l, "a0:00": a0u, "a2:lower": a2l, "a2:00": a2u,
                        "a2:02": page02},
                       optical_monitors(8690, 41.0, 45.0, 1.1, 0.2), writable,
                       {"sfp_tuning_ms": 1500})


def converter_sfp_voa():
    """Constructed on the OEM LR image: an SFP+ with a receive attenuator, 0..15 dB in 0.01 dB
    (docs/sfp-voa.md), A2h page 00h 248..254."""
    src = "sff8472_sfpplus_10g_lr_oem_yaoy1060.hex"
    a0l, a0u, (a2l, a2u) = sfp_dump(src)
    put_text(a0l, 20, "QSFPD-EMU", 16, 0)
    put_text(a0l, 40, "EMU-SFP-VOA", 16, 0)
    put_text(a0l, 68, "EMU0000000000011", 16, 0)
    a2l[110] = 0
    a2l[127] = 0
    sff8472_sums(a0l, a2l)
    for i in range(248, 256):
        a2u[i - 128] = 0
    put16(a2u, 252, 1500)  # maximum attenuation 15.00 dB
    writable = SFP_WRITABLE + [{"page": "a2:00", "from": 248, "to": 249}]
    return sfp_profile("QSFP-to-SFP converter with 10G LR SFP+ and VOA (constructed)",
                       "SFF-8472 behind a QSA; attenuator settles in 200 ms", src,
                       {"a0:lower": a0l, "a0:00": a0u, "a2:lower": a2l, "a2:00": a2u},
                       optical_monitors(8474, 36.0, 35.0, 0.5, 0.4), writable,
                       {"sfp_voa_settle_ms": 200})


def converter_sfp_fc_nodom():
    """Brocade 57-1000042-02 as dumped: A0h only, no diagnostics (byte 92 = 00h), so no A2h."""
    src = "sff8472_sfp_fc_brocade_57-1000042-02_nodom.hex"
    a0l, a0u, a2 = sfp_dump(src)
    assert a2 is None and not a0l[92] & 0x40
    none = {"nominal": 0, "noise": 0}
    return sfp_profile("QSFP-to-SFP converter with Brocade 57-1000042-02 SFP (no diagnostics)",
                       "SFF-8472 A0h only behind a QSA: nothing answers at 51h", src,
                       {"a0:lower": a0l, "a0:00": a0u},
                       {"seed": 8475, "temperature_c": none, "vcc_v": none, "bias_ma": none,
                        "tx_power_mw": none, "rx_power_mw": none})


def converter_sfp_dac():
    """Constructed on the Finisar SR image: a 3 m passive SFP+ direct-attach cable. SFF-8472:
    connector 21h (copper pigtail), byte 8 bit 2 (passive cable), byte 18 length 3 m, bytes
    60..61 the passive cable compliance (bit 0, SFF-8431 appendix E) instead of a wavelength, no
    signals (byte 65 = 0) and no diagnostics (byte 92 = 0): nothing at 51h."""
    src = "sff8472_sfpplus_10g_sr_finisar_ftlx8571d3bcl_auj0rcj.hex"
    a0l, a0u, _ = sfp_dump(src)
    put_text(a0l, 20, "QSFPD-EMU", 16, 0)
    put_text(a0l, 40, "EMU-SFP-DAC-3M", 16, 0)
    put_text(a0l, 68, "EMU0000000000012", 16, 0)
    a0l[2] = 0x21
    put(a0l, 3, [0] * 8, 0)
    a0l[8] = 0x04
    a0l[11] = 0x00  # encoding unspecified
    a0l[14:20] = [0, 0, 0, 0, 3, 0]
    put(a0l, 60, [0x01, 0x00, 0x00], 0)
    a0l[64], a0l[65] = 0, 0
    a0l[92], a0l[93], a0l[94] = 0, 0, 0
    sff8472_sums(a0l)
    none = {"nominal": 0, "noise": 0}
    return sfp_profile("QSFP-to-SFP converter with a 3 m passive SFP+ cable (constructed)",
                       "SFF-8472 A0h only behind a QSA: a direct-attach cable", src,
                       {"a0:lower": a0l, "a0:00": a0u},
                       {"seed": 8476, "temperature_c": none, "vcc_v": none, "bias_ma": none,
                        "tx_power_mw": none, "rx_power_mw": none})


if __name__ == "__main__":
    for stem, build in [("qsfp28_100g_lr4", lr4), ("qsfp28_100g_cwdm4", cwdm4),
                        ("qsfp28_100g_fr1_pam4", fr1_pam4), ("qsfp28_100g_sr2_pam4", sr2_pam4),
                        ("qsfp28_100g_dwdm4", dwdm4), ("qsfpplus_dac_passive", dac),
                        ("qsfpdd_400g_fr4", fr4), ("qsfpdd_400zr", zr), ("qsfpdd_400zr_plus", lambda: with_vdm(zr_plus())),
                        ("qsfpdd_400g_dr4_avago", dr4_avago),
                        ("qsfpdd_400g_dr4_innolight", dr4_innolight),
                        ("qsfpdd_400g_cr8_amphenol", cr8_amphenol),
                        ("qsfpdd_dac_cisco_sparse", dac_cisco),
                        ("qsfpdd_dac_fithonteng_flat", dac_fithonteng),
                        ("qsa_sfpplus_10g_sr", converter_sfp_sr),
                        ("qsa_sfpplus_10g_lr", converter_sfp_lr),
                        ("qsa_sfpplus_10g_tunable_dwdm", converter_sfp_tunable_dwdm),
                        ("qsa_sfpplus_10g_voa", converter_sfp_voa),
                        ("qsa_sfp_fc_brocade_nodom", converter_sfp_fc_nodom),
                        ("qsa_sfpplus_dac_passive", converter_sfp_dac)]:
        write(stem, build())
        print("wrote", stem)
