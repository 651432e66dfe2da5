#include "app_code_tables.hpp"

#include <array>
#include <cstdio>

namespace qsfpd::cmis {

namespace {

// Row layout: code, IdHex, name, nominal Gbit/s, lanes, modulation, FEC, application bit rate
// (Gbit/s, two decimals as SFF-8024 prints it), lane signalling rate (GBd), bits per UI.
// Names are kept exactly as operators have always seen them, blanks and all.
// B/UI: 1 NRZ, 2 PAM4 and PAM5 (1000BASE-T carries 8 bits over four lanes' symbols), 3.125 PAM16
// (the DSQ128 mapping of 2.5G/10G/25G/40GBASE-T), 4 DP-QPSK, 6 DP-8QAM, 8 DP-16QAM.

// clang-format off
constexpr std::array host_rows{
    app_code_row{0x01, "1",  "1000BASE-CX (Clause 39)", 1, 1, "NRZ", "", 1.25, 1.25, 1},
    app_code_row{0x02, "2",  "XAUI (Clause 47)", 10, 4, "NRZ", "", 12.5, 3.125, 1},
    // XFI and SFI cover 9.95 to 11.10 Gbit/s; the record holds the range's lower end.
    app_code_row{0x03, "3",  "XFI (SFF INF-8071i)", 10, 1, "NRZ", "", 9.95, 9.95328, 1},
    app_code_row{0x04, "4",  "SFI (SFF-8431)", 10, 1, "NRZ", "", 9.95, 9.95328, 1},
    app_code_row{0x05, "5",  "25GAUI C2M (Annex 109B)", 25, 1, "NRZ", "", 25.78, 25.78125, 1},
    app_code_row{0x06, "6",  "XLAUI C2M (Annex 83B)", 40, 4, "NRZ", "", 41.25, 10.3125, 1},
    app_code_row{0x07, "7",  "XLPPI (Annex 86A)", 40, 4, "NRZ", "", 41.25, 10.3125, 1},
    app_code_row{0x08, "8",  "LAUI-2 C2M (Annex 135C)", 50, 2, "NRZ", "", 51.56, 25.78125, 1},
    app_code_row{0x09, "9",  "50GAUI-2 C2M (Annex 135E)", 50, 2, "NRZ", "RS(544,514)FEC", 53.13, 26.5625, 1},
    app_code_row{0x0A, "A",  "50GAUI-1 C2M (Annex 135G)", 50, 1, "PAM4", "RS(544,514)FEC", 53.13, 26.5625, 2},
    app_code_row{0x0B, "B",  "CAUI-4 C2M (Annex 83E)", 100, 4, "NRZ", "", 103.13, 25.78125, 1},
    app_code_row{0x0C, "C",  "100GAUI-4 C2M (Annex 135E)", 100, 4, "NRZ", "RS(544,514)FEC", 106.25, 26.5625, 1},
    app_code_row{0x0D, "D",  "100GAUI-2 C2M (Annex 135G)", 100, 2, "PAM4", "RS(544,514)FEC", 106.25, 26.5625, 2},
    app_code_row{0x0E, "E",  "200GAUI-8 C2M (Annex 120C)", 200, 8, "NRZ", "RS(544,514)FEC", 212.5, 26.5625, 1},
    app_code_row{0x0F, "F",  "200GAUI-4 C2M (Annex 120E)", 200, 4, "PAM4", "RS(544,514)FEC", 212.5, 26.5625, 2},
    app_code_row{0x10, "10", "400GAUI-16 C2M (Annex 120C)", 400, 16, "NRZ", "RS(544,514)FEC", 425, 26.5625, 1},
    app_code_row{0x11, "11", "400GAUI-8 C2M (Annex 120E)", 400, 8, "PAM4", "RS(544,514)FEC", 425, 26.5625, 2},
    app_code_row{0x13, "13", "10GBASE-CX4 (Clause 54)", 10, 4, "NRZ", "", 12.5, 3.125, 1},
    app_code_row{0x14, "14", "25GBASE-CR CA-25G-L (Clause 110)", 25, 1, "NRZ", "RS-FEC", 25.78, 25.78125, 1},
    app_code_row{0x15, "15", "25GBASE-CRor 25GBASE-CR-SCA-25G-S(Clause 110)", 25, 1, "NRZ", "", 25.78, 25.78125, 1},
    app_code_row{0x16, "16", "25GBASE-CRor 25GBASE-CR-SCA-25G-N(Clause 110)", 25, 1, "NRZ", "", 25.78, 25.78125, 1},
    app_code_row{0x17, "17", "40GBASE-CR4 (Clause 85)", 40, 4, "NRZ", "", 41.25, 10.3125, 1},
    app_code_row{0x18, "18", "50GBASE-CR (Clause 136)", 50, 1, "PAM4", "RS(544,514)FEC", 53.13, 26.5625, 2},
    app_code_row{0x19, "19", "100GBASE-CR10 (Clause 85)", 100, 10, "NRZ", "", 103.13, 10.3125, 1},
    app_code_row{0x1A, "1A", "100GBASE-CR4 (Clause 92)", 100, 4, "NRZ", "RS-FEC", 103.13, 25.78125, 1},
    app_code_row{0x1B, "1B", "100GBASE-CR2 (Clause 136)", 100, 2, "PAM4", "RS(544,514)FEC", 106.25, 26.5625, 2},
    app_code_row{0x1C, "1C", "200GBASE-CR4 (Clause 136)", 200, 4, "PAM4", "RS(544,514)FEC", 212.5, 26.5625, 2},
    app_code_row{0x1D, "1D", "400G CR8 (EthernetTechnologyConsortium)", 400, 8, "PAM4", "RS(544,514)FEC", 425, 26.5625, 2},
    app_code_row{0x25, "25", "8GFC (FC-PI-4)", 8, 1, "NRZ", "", 8.5, 8.5, 1},
    app_code_row{0x26, "26", "10GFC (10GFC)", 10, 1, "NRZ", "", 10.52, 10.51875, 1},
    app_code_row{0x27, "27", "16GFC (FC-PI-5)", 16, 1, "NRZ", "", 14.03, 14.025, 1},
    app_code_row{0x28, "28", "32GFC (FC-PI-6)", 32, 1, "NRZ", "", 28.05, 28.05, 1},
    app_code_row{0x29, "29", "64GFC (FC-PI-7)", 64, 1, "PAM4", "", 57.8, 28.9, 2},
    app_code_row{0x2A, "2A", "128GFC (FC-PI-6P)", 128, 4, "NRZ", "", 112.2, 28.05, 1},
    app_code_row{0x2B, "2B", "256GFC (FC-PI-7P)", 256, 4, "PAM4", "", 231.2, 28.9, 2},
    app_code_row{0x33, "33", "E.96 (CPRI Specification V7.0)", 10, 1, "NRZ", "", 9.83, 9.8304, 1},
    app_code_row{0x34, "34", "E.99 (CPRI Specification V7.0)", 10, 1, "NRZ", "", 10.14, 10.1376, 1},
    app_code_row{0x35, "35", "E.119 (CPRI Specification V7.0)", 12, 1, "NRZ", "", 12.17, 12.16512, 1},
    app_code_row{0x36, "36", "E.238 (CPRI Specification V7.0)", 24, 1, "NRZ", "", 24.33, 24.33024, 1},
    app_code_row{0x37, "37", "OTL3.4 (ITU-T G.709/Y.1331 G.Sup58)See XLAUI (overclocked)", 40, 4, "NRZ", "", 44.57, 11.142744, 1},
    app_code_row{0x38, "38", "OTL4.10 (ITU-T G.709/Y.1331 G.  Sup58) See CAUI-10 (overclocked)", 100, 10, "NRZ", "", 111.81, 11.180997, 1},
    app_code_row{0x39, "39", "OTL4.4 (ITU-T G.709/Y.1331 G.Sup58)See CEI-28G-VSR", 100, 4, "NRZ", "", 111.81, 27.952493, 1},
    app_code_row{0x3A, "3A", "OTLC.4 (ITU-T G.709.1/Y.1331 G.Sup58)See CEI-28G-VSR", 100, 4, "NRZ", "", 118.1, 29.52531, 1},
    app_code_row{0x3B, "3B", "FOIC1.4 (ITU-T G.709.1/Y.1331 G.Sup58)See CEI-28G-VSR", 100, 4, "NRZ", "", 111.81, 27.952493, 1},
    app_code_row{0x3C, "3C", "FOIC1.2 (ITU-T G.709.1/Y.1331 G.Sup58)See CEI-56G-VSR-PAM4", 100, 2, "PAM4", "", 111.81, 27.952493, 2},
    app_code_row{0x3D, "3D", "FOIC2.8 (ITU-T G.709.1/Y.1331 G.Sup58) See CEI-28G-VSR", 200, 8, "NRZ", "", 223.62, 27.952493, 1},
    app_code_row{0x3E, "3E", "FOIC2.4 (ITU-T G.709.1/Y.1331 G.Sup58) See CEI-56G-VSR-PAM4", 200, 4, "PAM4", "", 223.62, 27.952493, 2},
    app_code_row{0x3F, "3F", "FOIC4.16 (ITU-T G.709.1G.Sup58)See CEI-28G-VSR", 400, 16, "NRZ", "", 447.24, 27.952493, 1},
    app_code_row{0x40, "40", "FOIC4.8 (ITU-T G.709.1 G.Sup58)See CEI-56G-VSR-PAM4", 400, 8, "PAM4", "", 447.24, 27.952493, 2},
    app_code_row{0x41, "41", "CAUI-4 C2M (Annex 83E) without FEC", 100, 4, "NRZ", "", 103.13, 25.78125, 1},
    app_code_row{0x42, "42", "CAUI-4 C2M (Annex 83E) with RS(528,514) FEC", 100, 4, "NRZ", "RS(528,514)FEC", 103.13, 25.78125, 1},
    app_code_row{0x43, "43", "50GBASE-CR2(Ethernet TechnologyConsortium)  with RS(528,514)(Clause 91)FEC", 50, 2, "NRZ", "RS(528,514)FEC", 51.56, 25.78125, 1},
    app_code_row{0x44, "44", "50GBASE-CR2(Ethernet TechnologyConsortium)  with BASE-R (Clause74),Fire codeFEC", 50, 2, "NRZ", "BASE-R FEC", 51.56, 25.78125, 1},
    app_code_row{0x45, "45", "50GBASE-CR2 (Ethernet TechnologyConsortium)with no FEC", 50, 2, "NRZ", "", 51.56, 25.78125, 1},
    app_code_row{0x46, "46", "100GBASE-CR1 (Clause 162)", 100, 1, "PAM4", "RS(544,514)FEC", 106.25, 53.125, 2},
    app_code_row{0x47, "47", "200GBASE-CR2 (Clause 162)", 200, 2, "PAM4", "RS(544,514)FEC", 212.5, 53.125, 2},
    app_code_row{0x48, "48", "400GBASE-CR4 (Clause 162)", 400, 4, "PAM4", "RS(544,514)FEC", 425, 53.125, 2},
    app_code_row{0x49, "49", "800G-ETC-CR8", 800, 8, "PAM4", "RS(544,514)FEC", 850, 53.125, 2},
    app_code_row{0x4A, "4A", "128GFC (FC-PI-8)", 128, 1, "PAM4", "", 112.2, 56.1, 2},
    app_code_row{0x4B, "4B", "100GAUI-1-SC2M (Annex 120G)", 100, 1, "PAM4", "RS(544,514)FEC", 106.25, 53.125, 2},
    app_code_row{0x4C, "4C", "100GAUI-1-LC2M (Annex 120G)", 100, 1, "PAM4", "RS(544,514)FEC", 106.25, 53.125, 2},
    app_code_row{0x4D, "4D", "200GAUI-2-SC2M (Annex 120G)", 200, 2, "PAM4", "RS(544,514)FEC", 212.5, 53.125, 2},
    app_code_row{0x4E, "4E", "200GAUI-2-LC2M (Annex 120G)", 200, 2, "PAM4", "RS(544,514)FEC", 212.5, 53.125, 2},
    app_code_row{0x4F, "4F", "400GAUI-4-SC2M (Annex 120G)", 400, 4, "PAM4", "RS(544,514)FEC", 425, 53.125, 2},
    app_code_row{0x50, "50", "400GAUI-4-LC2M (Annex 120G)", 400, 4, "PAM4", "RS(544,514)FEC", 425, 53.125, 2},
    app_code_row{0x51, "51", "800G SC2M (placeholder)", 800, 8, "PAM4", "RS(544,514)FEC", 850, 53.125, 2},
    app_code_row{0x52, "52", "800G LC2M (placeholder)", 800, 8, "PAM4", "RS(544,514)FEC", 850, 53.125, 2},
    app_code_row{0x53, "53", "OTL4.2", 100, 2, "PAM4", "", 111.81, 27.952493, 2},
};

constexpr std::array mmf_rows{
    app_code_row{0x01, "1",  "10GBASE-SW (Clause 52)", 10, 1, "NRZ", "", 9.95, 9.95328, 1},
    app_code_row{0x02, "2",  "10GBASE-SR (Clause 52)", 10, 1, "NRZ", "", 10.31, 10.3125, 1},
    app_code_row{0x03, "3",  "25GBASE-SR (Clause 112)", 25, 1, "NRZ", "RS-FEC", 25.78, 25.78125, 1},
    app_code_row{0x04, "4",  "40GBASE-SR4 (Clause 86)", 40, 4, "NRZ", "", 41.25, 10.3125, 1},
    app_code_row{0x05, "5",  "40GE SWDM4 MSA Spec", 40, 4, "NRZ", "", 41.25, 10.3125, 1},
    app_code_row{0x06, "6",  "40GE BiDi", 40, 2, "NRZ", "", 41.25, 20.625, 1},
    app_code_row{0x07, "7",  "50GBASE-SR (Clause 138)", 50, 1, "PAM4", "RS(544,514)FEC", 53.13, 26.5625, 2},
    app_code_row{0x08, "8",  "100GBASE-SR10 (Clause 86)", 100, 10, "NRZ", "", 103.13, 10.3125, 1},
    app_code_row{0x09, "9",  "100GBASE-SR4 (Clause 95)", 100, 4, "NRZ", "RS-FEC", 103.13, 25.78125, 1},
    app_code_row{0x0A, "A",  "100GE SWDM4 MSA Spec", 100, 4, "NRZ", "RS-FEC", 103.13, 25.78125, 1},
    app_code_row{0x0B, "B",  "100GE BiDi", 100, 2, "PAM4", "RS(544,514)FEC", 106.25, 26.5625, 2},
    app_code_row{0x0C, "C",  "100GBASE-SR2 (Clause 138)", 100, 2, "PAM4", "RS(544,514)FEC", 106.25, 26.5625, 2},
    app_code_row{0x0D, "D",  "100GBASE-SR1 (Clause 167)", 100, 1, "PAM4", "RS(544,514)FEC", 106.25, 53.125, 2},
    app_code_row{0x0E, "E",  "200GBASE-SR4 (Clause 138)", 200, 4, "PAM4", "RS(544,514)FEC", 212.5, 26.5625, 2},
    app_code_row{0x0F, "F",  "400GBASE-SR16 (Clause 123)", 400, 16, "NRZ", "RS(544,514)FEC", 425, 26.5625, 1},
    app_code_row{0x10, "10", "400GBASE-SR8 (Clause 138)", 400, 8, "PAM4", "RS(544,514)FEC", 425, 26.5625, 2},
    app_code_row{0x11, "11", "400GBASE-SR4 (Clause 167)", 400, 4, "PAM4", "RS(544,514)FEC", 425, 53.125, 2},
    app_code_row{0x12, "12", "800GBASE-SR8 (Placeholder)", 800, 8, "PAM4", "RS(544,514)FEC", 850, 53.125, 2},
    app_code_row{0x13, "13", "8GFC-MM (FC-PI-4)", 8, 1, "NRZ", "", 8.5, 8.5, 1},
    app_code_row{0x14, "14", "10GFC-MM (10GFC)", 10, 1, "NRZ", "", 10.52, 10.51875, 1},
    app_code_row{0x15, "15", "16GFC-MM (FC-PI-5)", 16, 1, "NRZ", "", 14.03, 14.025, 1},
    app_code_row{0x16, "16", "32GFC-MM (FC-PI-6)", 32, 1, "NRZ", "", 28.05, 28.05, 1},
    app_code_row{0x17, "17", "64GFC-MM (FC-PI-7)", 64, 1, "PAM4", "", 57.8, 28.9, 2},
    app_code_row{0x18, "18", "128GFC-MM4 (FC-PI-6P)", 128, 4, "NRZ", "", 112.2, 28.05, 1},
    app_code_row{0x19, "19", "256GFC-MM4 (FC-PI-7P)", 256, 4, "PAM4", "", 231.2, 28.9, 2},
    app_code_row{0x1A, "1A", "400GBASE-SR4.2 (Clause 150) (400GE BiDi)", 400, 8, "PAM4", "RS(544,514)FEC", 425, 26.5625, 2},
    app_code_row{0x1B, "1B", "200GBASE-SR2 (Clause 167)", 200, 2, "PAM4", "RS(544,514)FEC", 212.5, 53.125, 2},
    app_code_row{0x1C, "1C", "128GFC-MM (FC-PI-8)", 128, 1, "PAM4", "", 112.2, 56.1, 2},
    app_code_row{0x1D, "1D", "100GBASE-VR1 (Clause 167)", 100, 1, "PAM4", "RS(544,514)FEC", 106.25, 53.125, 2},
    app_code_row{0x1E, "1E", "200GBASE-VR2 (Clause 167)", 200, 2, "PAM4", "RS(544,514)FEC", 212.5, 53.125, 2},
    app_code_row{0x1F, "1F", "400GBASE-VR4 (Clause 167)", 400, 4, "PAM4", "RS(544,514)FEC", 425, 53.125, 2},
    app_code_row{0x20, "20", "800GBASE-VR8 (Placeholder)", 800, 8, "PAM4", "RS(544,514)FEC", 850, 53.125, 2},
};

constexpr std::array smf_rows{
    app_code_row{0x01, "1",  "10GBASE-LW (Clause 52)", 10, 1, "NRZ", "", 9.95, 9.95328, 1},
    app_code_row{0x02, "2",  "10GBASE-EW (Clause 52)", 10, 1, "NRZ", "", 9.95, 9.95328, 1},
    app_code_row{0x03, "3",  "10G-ZW", 10, 1, "NRZ", "", 9.95, 9.95328, 1},
    app_code_row{0x04, "4",  "10GBASE-LR (Clause 52)", 10, 1, "NRZ", "", 10.31, 10.3125, 1},
    app_code_row{0x05, "5",  "10GBASE-ER (Clause 52)", 10, 1, "NRZ", "", 10.31, 10.3125, 1},
    app_code_row{0x06, "6",  "10G-ZR", 10, 1, "NRZ", "", 10.31, 10.3125, 1},
    app_code_row{0x07, "7",  "25GBASE-LR (Clause 114)", 25, 1, "NRZ", "", 25.78, 25.78125, 1},
    app_code_row{0x08, "8",  "25GBASE-ER (Clause 114)", 25, 1, "NRZ", "", 25.78, 25.78125, 1},
    app_code_row{0x09, "9",  "40GBASE-LR4 (Clause 87)", 40, 4, "NRZ", "", 41.25, 10.3125, 1},
    app_code_row{0x0A, "A",  "40GBASE-FR (Clause 89)", 40, 1, "NRZ", "", 41.25, 41.25, 1},
    app_code_row{0x0B, "B",  "50GBASE-FR (Clause 139)", 50, 1, "PAM4", "RS(544,514)FEC", 53.13, 26.5625, 2},
    app_code_row{0x0C, "C",  "50GBASE-LR (Clause 139)", 50, 1, "PAM4", "RS(544,514)FEC", 53.13, 26.5625, 2},
    app_code_row{0x0D, "D",  "100GBASE-LR4 (Clause 88)", 100, 4, "NRZ", "", 103.13, 25.78125, 1},
    app_code_row{0x0E, "E",  "100GBASE-ER4 (Clause 88)", 100, 4, "NRZ", "", 103.13, 25.78125, 1},
    app_code_row{0x0F, "F",  "100G PSM4 MSA Spec", 100, 4, "NRZ", "RS-FEC", 103.13, 25.78125, 1},
    app_code_row{0x10, "10", "100G CWDM4 MSA Spec", 100, 4, "NRZ", "RS-FEC", 103.13, 25.78125, 1},
    app_code_row{0x11, "11", "100G 4WDM-10 MSA Spec", 100, 4, "NRZ", "RS-FEC", 103.13, 25.78125, 1},
    app_code_row{0x12, "12", "100G 4WDM-20 MSA Spec", 100, 4, "NRZ", "RS-FEC", 103.13, 25.78125, 1},
    app_code_row{0x13, "13", "100G 4WDM-40 MSA Spec", 100, 4, "NRZ", "RS-FEC", 103.13, 25.78125, 1},
    app_code_row{0x14, "14", "100GBASE-DR (Clause 140)", 100, 1, "PAM4", "RS(544,514)FEC", 106.25, 53.125, 2},
    app_code_row{0x15, "15", "100G-FR MSA spec2/100GBASE-FR1 (Clause 140)", 100, 1, "PAM4", "RS(544,514)FEC", 106.25, 53.125, 2},
    app_code_row{0x16, "16", "100G-LR MSA spec2/100GBASE-LR1 (Clause 140)", 100, 1, "PAM4", "RS(544,514)FEC", 106.25, 53.125, 2},
    app_code_row{0x17, "17", "200GBASE-DR4 (Clause 121)", 200, 4, "PAM4", "RS(544,514)FEC", 212.5, 26.5625, 2},
    app_code_row{0x18, "18", "200GBASE-FR4 (Clause 122)", 200, 4, "PAM4", "RS(544,514)FEC", 212.5, 26.5625, 2},
    app_code_row{0x19, "19", "200GBASE-LR4 (Clause 122)", 200, 4, "PAM4", "RS(544,514)FEC", 212.5, 26.5625, 2},
    app_code_row{0x1A, "1A", "400GBASE-FR8 (Clause 122)", 400, 8, "PAM4", "RS(544,514)FEC", 425, 26.5625, 2},
    app_code_row{0x1B, "1B", "400GBASE-LR8 (Clause 122)", 400, 8, "PAM4", "RS(544,514)FEC", 425, 26.5625, 2},
    app_code_row{0x1C, "1C", "400GBASE-DR4 (Clause 124)", 400, 4, "PAM4", "RS(544,514)FEC", 425, 53.125, 2},
    app_code_row{0x1D, "1D", "400G-FR4 MSA spec/400GBASE-FR4 (Clause 151)", 400, 4, "PAM4", "RS(544,514)FEC", 425, 53.125, 2},
    app_code_row{0x1E, "1E", "400G-LR4-10 MSA Spec", 400, 4, "PAM4", "RS(544,514)FEC", 425, 53.125, 2},
    app_code_row{0x1F, "1F", "8GFC-SM (FC-PI-4)", 8, 1, "NRZ", "", 8.5, 8.5, 1},
    app_code_row{0x20, "20", "10GFC-SM (10GFC)", 10, 1, "NRZ", "", 10.52, 10.51875, 1},
    app_code_row{0x21, "21", "16GFC-SM (FC-PI-5)", 16, 1, "NRZ", "", 14.03, 14.025, 1},
    app_code_row{0x22, "22", "32GFC-SM (FC-PI-6)", 32, 1, "NRZ", "", 28.05, 28.05, 1},
    app_code_row{0x23, "23", "64GFC-SM (FC-PI-7)", 64, 1, "PAM4", "", 57.8, 28.9, 2},
    app_code_row{0x24, "24", "128GFC-PSM4 (FC-PI-6P)", 128, 4, "NRZ", "", 112.2, 28.05, 1},
    app_code_row{0x26, "26", "128GFC-CWDM4 (FC-PI-6P)", 128, 4, "NRZ", "", 112.2, 28.05, 1},
    app_code_row{0x2C, "2C", "4I1-9D1F (G.959.1)", 100, 4, "NRZ", "", 111.81, 27.952493, 1},
    app_code_row{0x2D, "2D", "4L1-9C1F (G.959.1)", 100, 4, "NRZ", "", 111.81, 27.952493, 1},
    app_code_row{0x2E, "2E", "4L1-9D1F (G.959.1)", 100, 4, "NRZ", "", 111.81, 27.952493, 1},
    app_code_row{0x2F, "2F", "C4S1-9D1F (G.695)", 100, 4, "NRZ", "", 111.81, 27.952493, 1},
    app_code_row{0x30, "30", "C4S1-4D1F (G.695)", 200, 4, "PAM4", "", 223.62, 27.952493, 2},
    app_code_row{0x31, "31", "4I1-4D1F (G.959.1)", 200, 4, "PAM4", "", 223.62, 27.952493, 2},
    app_code_row{0x32, "32", "8R1-4D1F (G.959.1)", 400, 8, "PAM4", "", 447.24, 27.952493, 2},
    app_code_row{0x34, "34", "100G CWDM4-OCP", 100, 4, "NRZ", "RS-FEC", 103.13, 25.78125, 1},
    app_code_row{0x38, "38", "10G-SR", 10, 1, "NRZ", "", 10.31, 10.3125, 1},
    app_code_row{0x39, "39", "10G-LR", 10, 1, "NRZ", "", 10.31, 10.3125, 1},
    app_code_row{0x3A, "3A", "25G-SR", 25, 1, "NRZ", "", 25.78, 25.78125, 1},
    app_code_row{0x3B, "3B", "25G-LR", 25, 1, "NRZ", "", 25.78, 25.78125, 1},
    app_code_row{0x3C, "3C", "10G-LR-BiDi", 10, 1, "NRZ", "", 10.31, 10.3125, 1},
    app_code_row{0x3D, "3D", "25G-LR-BiDi", 25, 1, "NRZ", "", 25.78, 25.78125, 1},
    app_code_row{0x3E, "3E", "400ZR, DWDM, amplified", 400, 1, "DP-16QAM", "CFEC", 478.75, 59.84375, 8},
    app_code_row{0x3F, "3F", "400ZR, Single Wavelength, Unamplified", 400, 1, "DP-16QAM", "CFEC", 478.75, 59.84375, 8},
    app_code_row{0x40, "40", "50GBASE-ER (Clause 139)", 50, 1, "PAM4", "RS(544,514)FEC", 53.13, 26.5625, 2},
    app_code_row{0x41, "41", "200GBASE-ER4 (Clause 122)", 200, 4, "PAM4", "RS(544,514)FEC", 212.5, 26.5625, 2},
    app_code_row{0x42, "42", "400GBASE-ER8 (Clause 122)", 400, 8, "PAM4", "RS(544,514)FEC", 425, 26.5625, 2},
    app_code_row{0x43, "43", "400GBASE-LR4-6 (Clause 151)", 400, 4, "PAM4", "RS(544,514)FEC", 425, 53.125, 2},
    // 100GBASE-ZR is DP-DQPSK with a staircase FEC; the record's modulation vocabulary calls it DP-QPSK.
    app_code_row{0x44, "44", "100GBASE-ZR (Clause 154)", 100, 1, "DP-QPSK", "scFEC", 111.81, 27.952493, 4},
    app_code_row{0x45, "45", "128GFC-SM (FC-PI-8)", 128, 1, "PAM4", "", 112.2, 56.1, 2},
    // OpenZR+ modes, single carrier at 60.1 GBd (30.1 GBd for 100G). ZR200-OFEC-16QAM and
    // 100G-scFEC-DQPSK have no code of their own here: modules advertise the former under vendor
    // code F3 (see the custom rows below).
    app_code_row{0x46, "46", "ZR400-OFEC-16QAM", 400, 1, "DP-16QAM", "oFEC", 481.11, 60.138546, 8},
    app_code_row{0x47, "47", "ZR300-OFEC-8QAM", 300, 1, "DP-8QAM", "oFEC", 360.83, 60.138546, 6},
    app_code_row{0x48, "48", "ZR200-OFEC-QPSK", 200, 1, "DP-QPSK", "oFEC", 240.55, 60.138546, 4},
    app_code_row{0x49, "49", "ZR100-OFEC-QPSK", 100, 1, "DP-QPSK", "oFEC", 120.28, 30.069273, 4},
    app_code_row{0x4A, "4A", "100G-LR1-20 MSA Spec", 100, 1, "PAM4", "RS(544,514)FEC", 106.25, 53.125, 2},
    app_code_row{0x4B, "4B", "100G-ER1-30 MSA Spec", 100, 1, "PAM4", "RS(544,514)FEC", 106.25, 53.125, 2},
    app_code_row{0x4C, "4C", "100G-ER1-40 MSA Spec", 100, 1, "PAM4", "RS(544,514)FEC", 106.25, 53.125, 2},
    app_code_row{0x4D, "4D", "400GBASE-ZR (Clause 156)", 400, 1, "DP-16QAM", "CFEC", 478.75, 59.84375, 8},
    app_code_row{0x4E, "4E", "10GBASE-BR (Clause 158)", 10, 1, "NRZ", "", 10.31, 10.3125, 1},
    app_code_row{0x4F, "4F", "25GBASE-BR (Clause 159)", 25, 1, "NRZ", "", 25.78, 25.78125, 1},
    app_code_row{0x50, "50", "50GBASE-BR (Clause 160)", 50, 1, "PAM4", "RS(544,514)FEC", 53.13, 26.5625, 2},
    // FlexO digital-coherent interfaces: one optical carrier each.
    app_code_row{0x51, "51", "FOIC1.4-DO (G.709.3/Y.1331.3)", 100, 1, "DP-QPSK", "oFEC", 126.28, 31.569734, 4},
    app_code_row{0x52, "52", "FOIC2.8-DO (G.709.3/Y.1331.3)", 200, 1, "DP-16QAM", "oFEC", 252.56, 31.569734, 8},
    app_code_row{0x53, "53", "FOIC4.8-DO (G.709.3/Y.1331.3)", 400, 1, "DP-16QAM", "oFEC", 505.12, 63.139468, 8},
    app_code_row{0x54, "54", "FOIC2.4-DO (G.709.3/Y.1331.3)", 200, 1, "DP-QPSK", "oFEC", 252.56, 63.139468, 4},
    app_code_row{0x55, "55", "400GBASE-DR4-2 (placeholder)", 400, 4, "PAM4", "RS(544,514)FEC", 425, 53.125, 2},
    app_code_row{0x56, "56", "800GBASE-DR8 (placeholder)", 800, 8, "PAM4", "RS(544,514)FEC", 850, 53.125, 2},
    app_code_row{0x57, "57", "800GBASE-DR8-2 (placeholder)", 800, 8, "PAM4", "RS(544,514)FEC", 850, 53.125, 2},
};

// No rate, lane or modulation columns for cable assemblies: the host interface carries them.
constexpr std::array passive_copper_rows{
    app_code_row{0x01, "1",  "Copper cable", 0, 0, "", "", 0, 0, 0},
    app_code_row{0xBF, "BF", "Passive Loopback module", 0, 0, "", "", 0, 0, 0},
};

constexpr std::array active_cable_rows{
    app_code_row{0x01, "1",  "Active Cable assembly with BER < 10e-12", 0, 0, "", "", 0, 0, 0},
    app_code_row{0x02, "2",  "Active Cable assembly with BER < 5xe-5", 0, 0, "", "", 0, 0, 0},
    app_code_row{0x03, "3",  "Active Cable assembly with BER < 2.6xe-4", 0, 0, "", "", 0, 0, 0},
    app_code_row{0x04, "4",  "Active Cable assembly with BER < 10e-6", 0, 0, "", "", 0, 0, 0},
    app_code_row{0xBF, "BF", "Active Loopback module", 0, 0, "", "", 0, 0, 0},
};

constexpr std::array base_t_rows{
    app_code_row{0x01, "1",  "1000BASE-T (Clause 40)", 1, 4, "PAM5", "", 1, 0.125, 2},
    app_code_row{0x02, "2",  "2.5GBASE-T (Clause 126)", 2, 4, "PAM16", "", 2.5, 0.2, 3.125},
    app_code_row{0x04, "4",  "10GBASE-T (Clause 55)", 10, 4, "PAM16", "", 10, 0.8, 3.125},
    app_code_row{0x05, "5",  "25GBASE-T (Clause 113)", 25, 4, "PAM16", "", 25, 2, 3.125},
    app_code_row{0x06, "6",  "40GBASE-T (Clause 113)", 40, 4, "PAM16", "", 40, 3.2, 3.125},
    // A placeholder without rates yet.
    app_code_row{0x07, "7",  "50GBASE-T (Placeholder)", 50, 0, "", "", 0, 0, 0},
};

// Coherent modes of the maker's own modules under vendor-specific media codes.
constexpr app_code_row custom_c0{0xC0, "C0", "400ZR-OFEC-16QAM", 400, 1, "DP-16QAM", "oFEC", 481.11, 60.138546, 8};
constexpr app_code_row custom_c1{0xC1, "C1", "300ZR-OFEC-8QAM", 300, 1, "DP-8QAM", "oFEC", 360.83, 60.138546, 6};
constexpr app_code_row custom_c2{0xC2, "C2", "200ZR-OFEC-QPSK", 200, 1, "DP-QPSK", "oFEC", 240.55, 60.138546, 4};
constexpr app_code_row custom_c4{0xC4, "C4", "100ZR-OFEC-QPSK", 100, 1, "DP-QPSK", "oFEC", 120.28, 30.069273, 4};
constexpr app_code_row custom_c5{0xC5, "C5", "400ZR-OFEC-16QAM(small PMD)", 400, 1, "DP-16QAM", "oFEC", 481.11, 60.138546, 8};
constexpr app_code_row custom_ca{0xCA, "CA", "100ZR-QPSK", 100, 1, "DP-QPSK", "oFEC", 120.28, 30.069273, 4};
constexpr app_code_row custom_ce{0xCE, "CE", "400ZR-OFEC-16QAM-E", 400, 1, "DP-16QAM", "oFEC", 481.11, 60.138546, 8, "Enhanced"};
constexpr app_code_row custom_cf{0xCF, "CF", "300ZR-OFEC-8QAM-E", 300, 1, "DP-8QAM", "oFEC", 360.83, 60.138546, 6, "Enhanced"};
// B/UI 4 is what these modules have always reported for this mode; kept as shown to operators.
constexpr app_code_row custom_f3{0xF3, "F3", "ZR200-OFEC-16QAM", 200, 1, "DP-16QAM", "oFEC", 240.55, 30.069273, 4};
// clang-format on

app_code_info_t to_info(const app_code_row& row) {
    return app_code_info_t{std::string(row.id_hex),
                           std::string(row.interface),
                           row.bitrate,
                           row.lane_count,
                           std::string(row.modulation),
                           std::string(row.fec),
                           static_cast<float>(row.application_bit_rate),
                           static_cast<float>(row.lane_signal_rate),
                           static_cast<float>(row.bits_per_ui),
                           std::string(row.enhanced_mode)};
}

app_code_map to_map(std::span<const app_code_row> rows) {
    app_code_map map;
    for (const auto& row : rows)
        map.emplace(row.code, to_info(row));
    return map;
}

}  // namespace

app_code_info_t unknown_app_code(unsigned code) {
    return app_code_info_t{id_hex(code), "Unknown", 0, 0, "Unknown", "", 0.0F, 0.0F, 0.0F, ""};
}

std::string id_hex(unsigned code) {
    std::array<char, 16> buf{};
    const int n = std::snprintf(buf.data(), buf.size(), "%X", code);
    return std::string(buf.data(), static_cast<std::size_t>(n));
}

std::optional<code_table> media_table_of(unsigned media_type_encoding) {
    switch (media_type_encoding) {
        case 1:
            return code_table::mmf;
        case 2:
            return code_table::smf;
        case 3:
            return code_table::passive_copper;
        case 4:
            return code_table::active_cable;
        case 5:
            return code_table::base_t;
        default:
            return std::nullopt;
    }
}

std::string_view table_word(code_table table) {
    switch (table) {
        case code_table::mmf:
            return "mmf";
        case code_table::smf:
            return "smf";
        case code_table::passive_copper:
            return "passive copper";
        case code_table::active_cable:
            return "active cable";
        case code_table::base_t:
            return "base_t";
        case code_table::host:
            break;
    }
    return "host";
}

std::span<const app_code_row> rows(code_table table) {
    switch (table) {
        case code_table::mmf:
            return mmf_rows;
        case code_table::smf:
            return smf_rows;
        case code_table::passive_copper:
            return passive_copper_rows;
        case code_table::active_cable:
            return active_cable_rows;
        case code_table::base_t:
            return base_t_rows;
        case code_table::host:
            break;
    }
    return host_rows;
}

const app_code_map& table(code_table table) {
    // Built on first use; function-local statics make the first use thread-safe.
    static const app_code_map host = to_map(rows(code_table::host));
    static const app_code_map mmf = to_map(rows(code_table::mmf));
    static const app_code_map smf = to_map(rows(code_table::smf));
    static const app_code_map passive_copper = to_map(rows(code_table::passive_copper));
    static const app_code_map active_cable = to_map(rows(code_table::active_cable));
    static const app_code_map base_t = to_map(rows(code_table::base_t));
    switch (table) {
        case code_table::mmf:
            return mmf;
        case code_table::smf:
            return smf;
        case code_table::passive_copper:
            return passive_copper;
        case code_table::active_cable:
            return active_cable;
        case code_table::base_t:
            return base_t;
        case code_table::host:
            break;
    }
    return host;
}

const app_code_info_t* find_code(code_table which, unsigned code) {
    const auto& map = table(which);
    const auto it = map.find(code);
    return it == map.end() ? nullptr : &it->second;
}

const std::unordered_map<std::string, app_code_map>& builtin_custom_codes() {
    static const std::unordered_map<std::string, app_code_map> codes = [] {
        const auto make = [](std::initializer_list<app_code_row> list) {
            return to_map(std::span<const app_code_row>(list.begin(), list.size()));
        };
        std::unordered_map<std::string, app_code_map> m;
        m.emplace("MX7-ZRP-400", make({custom_c0, custom_c1, custom_c2, custom_c4, custom_c5,
                                       custom_ce, custom_cf}));
        // The subsets below are our choice: the tunable 400G parts carry the plain OpenZR+ rates,
        // the DD4 parts add the 100G and 200G modes their firmware advertises as vendor codes.
        m.emplace("MX7-TUN-011", make({custom_c0, custom_c1, custom_c2, custom_c4}));
        m.emplace("MX7-TUN-013", make({custom_c0, custom_c1, custom_c2, custom_c4, custom_c5}));
        m.emplace("MX7-DD4-00B", make({custom_c0, custom_c2, custom_ca, custom_f3}));
        m.emplace("MX7-DD4-190", make({custom_c0, custom_c2, custom_c4, custom_ca, custom_f3}));
        return m;
    }();
    return codes;
}

const host_info_t zelt_common_definitions::CAUI4_100G{"CAUI-4 C2M (Annex 83E)", 0x0B, 4, 100};
const host_info_t zelt_common_definitions::GAUI2_100G{"100GAUI-2 C2M (Annex 135G)", 0x0D, 2, 100};
const host_info_t zelt_common_definitions::GAUI2_200G{"100GAUI-2 C2M (Annex 135G)", 0x0D, 4, 200};
const host_info_t zelt_common_definitions::GAUI2_300G{"100GAUI-2 C2M (Annex 135G)", 0x0D, 6, 300};
const host_info_t zelt_common_definitions::GAUI2_400G{"100GAUI-2 C2M (Annex 135G)", 0x0D, 8, 400};
const host_info_t zelt_common_definitions::GAUI8_400G{"400GAUI-8 C2M (Annex 120E)", 0x11, 8, 400};
const host_info_t zelt_common_definitions::GAUI2_host_code{"100GAUI-2 C2M (Annex 135G)", 0x0D, 2,
                                                           100};

const std::map<std::string, host_info_t, std::less<>>& zelt_common_definitions::host_info() {
    // Multi-port services run each 100GbE over its own 100GAUI-2 pair of host lanes.
    static const std::map<std::string, host_info_t, std::less<>> map{
        {std::string(string_100G), CAUI4_100G},   {std::string(string_1x100G), GAUI2_100G},
        {std::string(string_2x100G), GAUI2_200G}, {std::string(string_3x100G), GAUI2_300G},
        {std::string(string_4x100G), GAUI2_400G}, {std::string(string_400G), GAUI8_400G},
    };
    return map;
}

}  // namespace qsfpd::cmis
