#include "bench/capture/timeline_inner.h"

namespace bench::timeline
{

const char kStyle[] = R"svg(<style>
text{font-family:"Helvetica Neue",Helvetica,Arial,"Liberation Sans",sans-serif;font-size:14px;fill:#1d2730}
.small{font-size:13px}.dim{fill:#55616c}.end{text-anchor:end}.mid{text-anchor:middle}
.head{font-size:22px;font-weight:bold}.part{font-size:16px;font-weight:bold}.bold{font-weight:bold}
.onbad{fill:#fff}.plate{paint-order:stroke;stroke:#fff;stroke-width:5;stroke-linejoin:round}
.page{fill:#fff}.lane{fill:#f2f4f6}.grid{stroke:#d5dbe0;stroke-width:1}.axis{stroke:#55616c;stroke-width:1}
.rule{stroke:#1d2730;stroke-width:1.5}.heavy{stroke-width:5}
.other{fill:#717d88}.accepted{fill:#74b9e8}.unknown{fill:url(#dots);stroke:#6b5600;stroke-width:1}
.refused{fill:url(#stripes)}.silence{fill:#fff;stroke:#1d2730;stroke-width:1.5}
.noise{fill:#5d2a6e}.wait{fill:url(#hatch);stroke:#9aa5af;stroke-width:1}
.gap{fill:#fff;stroke:#1d2730;stroke-width:1.2;stroke-dasharray:4 3}
.open{fill:#dfe5ea;stroke:#9aa5af;stroke-width:1}
.fold{fill:#fff;fill-opacity:.75}.tear{fill:none;stroke:#9aa5af;stroke-width:1}
.area{fill:#d3e8f5}.curve{fill:none;stroke:#0f5c8c;stroke-width:2}
.good{fill:#fff;stroke:#1d2730;stroke-width:1.5}.bad{fill:#1d2730;stroke:#1d2730;stroke-width:1.5}
.none{fill:#fff;stroke:#1d2730;stroke-width:1.5;stroke-dasharray:4 3}
.ink{fill:#1d2730}.pen{fill:none;stroke:#1d2730;stroke-width:2}.thin{fill:#fff;stroke:#1d2730;stroke-width:1.5}
</style>
<defs>
<pattern id="stripes" width="6" height="6" patternUnits="userSpaceOnUse" patternTransform="rotate(45)">
<rect width="6" height="6" fill="#d9480f"/><rect width="2" height="6" fill="#7a2600"/></pattern>
<pattern id="dots" width="6" height="6" patternUnits="userSpaceOnUse">
<rect width="6" height="6" fill="#f7d75c"/><circle cx="3" cy="3" r="1.4" fill="#6b5600"/></pattern>
<pattern id="hatch" width="7" height="7" patternUnits="userSpaceOnUse" patternTransform="rotate(-45)">
<rect width="7" height="7" fill="#fff"/><rect width="1.2" height="7" fill="#c3cbd2"/></pattern>
<path id="refused" class="pen" d="M-4-4L4 4M-4 4L4-4"/>
<path id="unknown" class="pen" d="M-3-2.5A3 3 0 1 1 1.5 0.4Q0 1 0 2.5M0 3.6V5.6"/>
<circle id="silence" class="pen" r="4"/>
<path id="noise" class="pen" d="M-6 2L-3-3L0 3L3-3L6 2"/>
<path id="again" class="pen" d="M4.2-1.5A4.5 4.5 0 1 0 4.2 1.8M5.4-5V-1H1.4"/>
<path id="finding" class="pen" d="M0-5.5V1M0 2.8V5.2"/>
<path id="open" class="ink" d="M-4-5L5 0L-4 5Z"/>
<path id="close" class="ink" d="M-4-5H4V5H-4Z"/>
<path id="setting" class="thin" d="M0-5L5 0L0 5L-5 0Z"/>
<g id="failed"><circle class="ink" r="7"/><path d="M-3-3L3 3M-3 3L3-3" stroke="#fff" stroke-width="2"/></g>
</defs>
)svg";

namespace
{

// One entry of the legend: a swatch, or a mark, or both.
struct LegendRow {
    const char *words;
    const char *look;
    double height; // share of the lane that the swatch has; 0: it is two lines
    const char *mark;
};

constexpr LegendRow kLegend[] = {
    {"accepted", "accepted", 0.8, nullptr},
    {"refused", "refused", 1, "refused"},
    {"unknown", "unknown", 1, "unknown"},
    {"no answer", "silence", 1, "silence"},
    {"noise or piece", "noise", 1, "noise"},
    {"other message", "other", 0.5, nullptr},
    {"silence", "gap", 0.9, nullptr},
    {"program waits", "wait", 0.9, nullptr},
    {"sent again", nullptr, 0, "again"},
    {"finding or remark", nullptr, 0, "finding"},
    {"open", nullptr, 0, "open"},
    {"driver setting", nullptr, 0, "setting"},
    {"failed call", nullptr, 0, "failed"},
    {"close", nullptr, 0, "close"},
    {"time drawn shorter", "tear", 0, nullptr},
};

} // namespace

double DrawLegend(Svg &svg, double y)
{
    constexpr std::size_t kColumns = 8;
    constexpr double kRow = 26, kSwatch = 26;
    constexpr double kColumn = (kPageWidth - 2 * kMargin) / kColumns;
    svg.Line(kMargin, y, kPageWidth - kMargin, y, "grid");
    for (std::size_t i = 0; i < std::size(kLegend); ++i) {
        const LegendRow &row = kLegend[i];
        double x = kMargin + kColumn * static_cast<double>(i % kColumns);
        const double middle = y + 24 + kRow * (i < kColumns ? 0 : 1);
        if (row.look != nullptr && row.height != 0)
            svg.Rect({x, middle - 9 * row.height, kSwatch, 18 * row.height}, row.look);
        else if (row.look != nullptr)
            for (const double side : {6, 20})
                svg.Path("M" + Number(x + side) + " " + Number(middle - 9) + "l3 3l-3 3l3 3l-3 3l3 3l-3 3", row.look);
        x += row.look != nullptr ? kSwatch + 4 : 0;
        if (row.mark != nullptr)
            svg.Use(row.mark, x + 7, middle);
        x += row.mark != nullptr ? 18 : 2;
        svg.Text(x, middle + 4.5, "small", row.words);
    }
    return 24 + 2 * kRow;
}

} // namespace bench::timeline
