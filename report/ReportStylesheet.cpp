// The report's stylesheet, inline in every page it writes (and in the
// console's, which adds its own rules after it): no file is fetched.
#include "report/HtmlReport.h"

const char* HtmlReport::stylesheet() {
  return R"(
:root { color-scheme: light; }
* { box-sizing: border-box; }
body { margin: 0; background: #f3f5f8; color: #1f2933;
  font: 14px/1.45 system-ui, -apple-system, "Segoe UI", Roboto, "Helvetica Neue", Arial, sans-serif; }
.page { max-width: 1180px; margin: 0 auto; padding: 28px 24px 48px; }
header.top h1 { font-size: 24px; margin: 0 0 6px; font-weight: 650; letter-spacing: -0.01em; }
.meta { color: #5b6573; margin: 0; }
code { font: 12.5px ui-monospace, SFMono-Regular, Menlo, Consolas, monospace; background: #e8ecf1;
  padding: 1px 6px; border-radius: 4px; overflow-wrap: anywhere; }
.summary { display: grid; grid-template-columns: repeat(auto-fit, minmax(165px, 1fr)); gap: 12px; margin: 20px 0 6px; }
.tile { background: #fff; border: 1px solid #e1e6ec; border-radius: 10px; padding: 12px 16px 14px; }
.tile .label { font-size: 11.5px; text-transform: uppercase; letter-spacing: 0.05em; color: #5b6573; }
.tile .value { font-size: 26px; font-weight: 650; margin-top: 2px; font-variant-numeric: tabular-nums; }
.tile.kind { grid-column: span 2; }
.tile.kind .value { font-size: 17px; line-height: 1.3; margin-top: 7px; }
.tile .sub { color: #5b6573; font-size: 12.5px; }
.showing { color: #5b6573; margin: 12px 0 0; }
.legend { display: flex; gap: 20px; flex-wrap: wrap; align-items: center; color: #5b6573; font-size: 12.5px;
  margin: 18px 0 14px; }
.legend span::before { content: ""; display: inline-block; vertical-align: -1px; margin-right: 6px; }
.legend .l-history::before { width: 16px; height: 2px; background: #8fb1d9; vertical-align: 3px; }
.legend .l-band::before { width: 16px; height: 10px; background: rgba(46, 158, 91, 0.18);
  border-top: 1px dashed #2e9e5b; border-bottom: 1px dashed #2e9e5b; }
.legend .l-job::before { width: 10px; height: 10px; border-radius: 50%; background: #d93025; }
.card { background: #fff; border: 1px solid #e1e6ec; border-left: 4px solid #d93025; border-radius: 10px;
  padding: 16px 20px 18px; margin: 0 0 16px; box-shadow: 0 1px 2px rgba(16, 24, 40, 0.05); }
.card-head { display: flex; justify-content: space-between; align-items: flex-start; gap: 12px; }
.card-head > div { min-width: 0; }
.card h2 { font-size: 18px; margin: 0; font-weight: 650; overflow-wrap: break-word; }
.when { color: #5b6573; font-size: 13px; margin-top: 1px; }
.score { flex: none; font-size: 12.5px; color: #8a1c14; background: #fdecea; border-radius: 999px;
  padding: 3px 11px; font-weight: 600; font-variant-numeric: tabular-nums; }
.kinds { list-style: none; padding: 0; margin: 10px 0 0; display: flex; flex-wrap: wrap; gap: 6px; }
.kinds li { background: #fff4e5; color: #8a4b00; border: 1px solid #f5d7a4; border-radius: 999px;
  padding: 1px 10px; font-size: 12.5px; }
.facts { display: grid; grid-template-columns: repeat(auto-fill, minmax(165px, 1fr)); gap: 8px 18px;
  margin: 12px 0 14px; }
.facts div { min-width: 0; }
.facts dt { font-size: 11px; color: #5b6573; text-transform: uppercase; letter-spacing: 0.05em; }
.facts dd { margin: 0; overflow-wrap: anywhere; }
.features { display: grid; grid-template-columns: repeat(auto-fit, minmax(430px, 1fr)); gap: 14px; }
.feature { border: 1px solid #e9edf2; border-radius: 8px; padding: 10px 12px 6px; background: #fcfdfe; min-width: 0; }
.feature h3 { font-size: 13.5px; margin: 0; font-weight: 600; }
.reading { font-size: 13px; color: #5b6573; margin: 2px 0 4px; display: flex; flex-wrap: wrap; column-gap: 12px; }
.reading .now { color: #c5221f; font-weight: 650; }
.reading .off { color: #8a1c14; white-space: nowrap; }
svg.chart { width: 100%; height: auto; display: block; }
.note { color: #4b5563; background: #f6f7f9; border: 1px dashed #d5dbe3; border-radius: 8px; padding: 9px 12px;
  margin: 0 0 12px; }
.empty { background: #fff; border: 1px solid #e1e6ec; border-radius: 10px; padding: 36px 24px; text-align: center;
  color: #3d4752; margin-top: 20px; }
.empty strong { display: block; font-size: 17px; margin-bottom: 4px; }
footer { color: #7b8491; font-size: 12px; margin-top: 28px; }
@media (max-width: 560px) { .features { grid-template-columns: 1fr; } .tile.kind { grid-column: auto; } }
@media print { body { background: #fff; } .card { box-shadow: none; break-inside: avoid; } }
)";
}
