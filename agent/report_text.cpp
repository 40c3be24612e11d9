// agent/report_text.cpp: texts and numbers as HTML, and the style of a report
// SPDX-License-Identifier: GPL-2.0-only
#include "agent/report.h"

#include <fmt/format.h>

namespace agent {
namespace {

constexpr const char *style = R"css(
:root{--paper:#faf9f6;--card:#fff;--ink:#1c1b1a;--soft:#66625c;--line:#e2ded6;--full:#3b4cc0;
--incr:#0f766e;--diff:#b45309;--bad:#b42318;--good:#217346;--s0:#eeebe4;--s1:#c3d9d5;--s2:#7fb5ae;
--s3:#3a8f86;--s4:#0b5d56;--zero:#c9c3b6;--p1:#7c8db5;--p2:#b08968;--p3:#0f766e;--p4:#c2702d;
--p5:#8a7aa8;--p6:#9aa0a6}
@media (prefers-color-scheme:dark){:root{
--paper:#16181a;--card:#1e2124;--ink:#e9e6e1;--soft:#a19c94;
--line:#34383c;--full:#93a4ff;--incr:#4fc3b6;--diff:#f0a858;--bad:#ff8a7d;--good:#6fcf97;
--s0:#2a2e31;
--s1:#274944;--s2:#2f7a70;--s3:#3fae9f;--s4:#8ce8da;--zero:#565b60;--p1:#8fa3d4;--p2:#c9a27e;
--p3:#4fc3b6;--p4:#eb9a55;--p5:#b3a1d6;--p6:#8b9197}}
*{box-sizing:border-box}
html{-webkit-text-size-adjust:100%}
body{margin:0;background:var(--paper);color:var(--ink);font:16px/1.55 system-ui,"Segoe UI",Roboto,
"Noto Sans","DejaVu Sans",sans-serif;font-variant-numeric:tabular-nums lining-nums}
.top,main,footer{max-width:1120px;margin:0 auto;padding:0 clamp(16px,4vw,40px)}
.top{padding-top:clamp(28px,6vw,64px)}
h1,h2{font-family:ui-serif,Charter,"Bitstream Charter","Iowan Old Style",Georgia,
"DejaVu Serif",serif;
font-weight:600;letter-spacing:-.012em;line-height:1.15;text-wrap:balance}
h1{font-size:clamp(1.75rem,4.6vw,2.75rem);margin:0 0 .4em;overflow-wrap:anywhere}
h2{font-size:clamp(1.3rem,3vw,1.7rem);margin:2.2em 0 .5em}
h3{font-size:1.0625rem;margin:0;font-weight:650;overflow-wrap:anywhere}
h4{font-size:.875rem;font-weight:600;margin:0 0 .5em}
p{margin:0 0 .5em}
.top p,.lead,footer{color:var(--soft)}
.top p{margin:0;font-size:.9375rem;overflow-wrap:anywhere}
.path{font-family:ui-monospace,"SF Mono",Menlo,"DejaVu Sans Mono",monospace;
font-size:.8125rem!important}
.lead{max-width:76ch}
.tiles{display:grid;grid-template-columns:repeat(auto-fit,minmax(170px,1fr));gap:1px;margin:2em 0 0;
background:var(--card);border:1px solid var(--line);border-radius:10px;overflow:hidden}
.tiles>div{padding:16px 18px;box-shadow:0 0 0 1px var(--line)}
dt{font-size:.8125rem;color:var(--soft)}
dd{margin:2px 0 0;font-size:1.375rem;font-weight:600;letter-spacing:-.01em;overflow-wrap:anywhere}
dd small{display:block;font-size:.8125rem;line-height:1.4;font-weight:400;letter-spacing:0;
color:var(--soft)}
dd em{font-style:normal;color:var(--bad);font-weight:600}
.wide{overflow-x:auto;border:1px solid var(--line);border-radius:10px;background:var(--card)}
.wide:focus-visible{outline:2px solid var(--full);outline-offset:2px}
.timeline{display:block;margin:8px auto}
.timeline text{font-size:12px;text-anchor:middle;fill:var(--ink)}
.timeline .amount{font-size:10.5px;fill:var(--soft)}
.timeline .end{text-anchor:end}.timeline .start{text-anchor:start}
.timeline .when{font-size:11px;fill:var(--soft)}
.timeline .name{font-weight:600}
.rail{stroke:var(--line);stroke-width:2}
.builds{fill:none;stroke:var(--soft);stroke-width:1.25;opacity:.7}
.full{fill:var(--full)}.incr{fill:var(--incr)}.diff{fill:var(--diff)}.dot.bad{fill:var(--bad)}
.read{fill-opacity:.14;stroke-width:1}
.read.full{stroke:var(--full)}.read.incr{stroke:var(--incr)}.read.diff{stroke:var(--diff)}
.dot{stroke:var(--card);stroke-width:2}
article{background:var(--card);border:1px solid var(--line);border-radius:10px;
padding:18px clamp(14px,3vw,24px);margin:0 0 16px}
article header{display:flex;flex-wrap:wrap;align-items:baseline;gap:4px 12px;margin-bottom:12px}
article header p{margin:0;color:var(--soft);font-size:.9375rem}
.kind{font-size:.75rem;font-weight:650;padding:1px 9px;border-radius:99px;border:1px solid}
.kind.full{color:var(--full)}.kind.incr{color:var(--incr)}.kind.diff{color:var(--diff)}
figure{margin:0 0 18px}
figcaption{font-size:.875rem;color:var(--soft);margin-top:6px}
.map{display:block;width:100%;height:112px;border-radius:4px;shape-rendering:crispEdges}
.s0{fill:var(--s0);background:var(--s0)}.s1{fill:var(--s1);background:var(--s1)}
.s2{fill:var(--s2);background:var(--s2)}.s3{fill:var(--s3);background:var(--s3)}
.s4{fill:var(--s4);background:var(--s4)}
.miss{fill:var(--bad);stroke:var(--card);stroke-width:.15}
.scale{white-space:nowrap;margin-right:.8em}
.scale i,.key i{display:inline-block;width:11px;height:11px;border-radius:2px;margin:0 2px;
vertical-align:-1px}
.scale i.hollow{border:1px solid var(--s4);background:none}
.two{display:grid;grid-template-columns:1fr 1fr;gap:18px clamp(18px,4vw,40px)}
.parts{display:block;width:100%;height:10px;border-radius:3px;background:var(--s0)}
.key{list-style:none;margin:8px 0 0;padding:0;display:flex;flex-wrap:wrap;gap:2px 16px;
font-size:.8125rem;color:var(--soft)}
.key b{font-weight:600;color:var(--ink);white-space:nowrap}
.key i{margin:0 5px 0 0}
.p-data,.p-3{fill:var(--p3);background:var(--p3)}.p-zero{fill:var(--zero);background:var(--zero)}
.p-same{fill:var(--diff);background:var(--diff)}.p-1{fill:var(--p1);background:var(--p1)}
.p-2{fill:var(--p2);background:var(--p2)}.p-4{fill:var(--p4);background:var(--p4)}
.p-5{fill:var(--p5);background:var(--p5)}.p-6{fill:var(--p6);background:var(--p6)}
.audit{margin:14px 0 0;font-size:.9375rem}
.audit.good span{color:var(--good)}.audit.none{color:var(--soft)}
.audit.bad,.faults{color:var(--bad);font-weight:600}
.faults{border:1px solid;border-radius:10px;margin:2em 0 0;padding:12px 16px 12px 34px;
font-size:.9375rem;font-weight:400;overflow-wrap:anywhere}
.why{color:var(--soft)}
table{border-collapse:collapse;font-size:.8125rem;white-space:nowrap;width:100%}
th,td{padding:7px 12px;text-align:right;border-bottom:1px solid var(--line)}
tbody tr:last-child>*{border-bottom:0}
thead th{font-weight:600;color:var(--soft)}
th[colspan]{text-align:center;border-left:1px solid var(--line)}
tbody th,td:nth-child(2),td:nth-child(3),th[rowspan]{text-align:left}
tbody th{position:sticky;left:0;background:var(--card);font-weight:600}
footer{padding-top:28px;padding-bottom:48px;font-size:.875rem}
@media (max-width:720px){.two{grid-template-columns:1fr}.map{height:88px}
.tiles{grid-template-columns:1fr 1fr}dd{font-size:1.125rem}.tiles>div{padding:12px 14px}}
@media print{body{background:#fff}article{break-inside:avoid}}
)css";

// The length of the UTF-8 sequence at `at` that a browser takes as it stands; 0: none.
size_t sequence(const std::string &text, size_t at) {
    auto byte = [&](size_t i) { return static_cast<uint8_t>(text[at + i]); };
    uint8_t lead = byte(0);
    size_t length = lead < 0x80                   ? 1
                    : lead >= 0xc2 && lead < 0xe0 ? 2
                    : lead >= 0xe0 && lead < 0xf0 ? 3
                    : lead >= 0xf0 && lead < 0xf5 ? 4
                                                  : 0;
    if (length == 0 || at + length > text.size())
        return 0;
    for (size_t i = 1; i < length; i++)
        if ((byte(i) & 0xc0) != 0x80)
            return 0;
    if ((lead == 0xe0 && byte(1) < 0xa0) || (lead == 0xed && byte(1) > 0x9f) ||
        (lead == 0xf0 && byte(1) < 0x90) || (lead == 0xf4 && byte(1) > 0x8f))
        return 0;
    return length;
}

}  // namespace

std::string html_text(const std::string &text) {
    std::string html;
    for (size_t at = 0; at < text.size();) {
        size_t length = sequence(text, at);
        auto c = static_cast<uint8_t>(text[at]);
        if (length == 0 || c < 0x20 || c == 0x7f)
            html += "\xef\xbf\xbd";
        else if (c == '&' || c == '<' || c == '>' || c == '"' || c == '\'')
            html += fmt::format("&#{};", c);
        else
            html.append(text, at, length);
        at += length == 0 ? 1 : length;
    }
    return html;
}

std::string html_time(const std::string &time) {
    std::string shown = time.size() >= 19 ? time.substr(0, 10) + " " + time.substr(11, 8) : time;
    return fmt::format("<time datetime=\"{}\">{}</time>", html_text(time), html_text(shown));
}

std::string share_text(uint64_t part, uint64_t whole) {
    if (whole == 0)
        return "–";
    return fmt::format("{:.1f} %", static_cast<double>(part) * 100 / static_cast<double>(whole));
}

const char *report_style() {
    return style;
}

}  // namespace agent
