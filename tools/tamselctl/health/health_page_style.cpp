#include "health/health_page_style.h"

namespace tmsc::ctl {

const char* const kHealthPageStyle = R"(
:root { color-scheme: light dark;
  --page: #f6f7f9; --sheet: #fff; --text: #1c2430; --faint: #5a6675; --line: #d5dae1;
  --good: #146c2e; --bad: #b3261e; --warn: #8a5300; --accent: #3566b8; --accent-faint: #bcd0f0;
  --cell-good: #d9efdd; --cell-few: #fbe3b0; --cell-many: #f3b27a; --cell-most: #e07856;
  --cell-all: #9c1c14; --on-all: #fff; --none: #eceff3; }
@media (prefers-color-scheme: dark) { :root {
  --page: #12161c; --sheet: #1b212a; --text: #e4e8ee; --faint: #a3aebd; --line: #364150;
  --good: #79d08f; --bad: #ff9d93; --warn: #f2c265; --accent: #7fa8ec; --accent-faint: #34496e;
  --cell-good: #1d4029; --cell-few: #5f4a12; --cell-many: #81491a; --cell-most: #9c3c22;
  --cell-all: #ffb4ab; --on-all: #3b0500; --none: #262d38; } }
* { box-sizing: border-box; }
body { margin: 0; background: var(--page); color: var(--text);
  font: 15px/1.45 system-ui, -apple-system, "Segoe UI", Roboto, sans-serif;
  overflow-wrap: break-word; }
header, main, footer { max-width: 76rem; margin: 0 auto; padding: 0 1rem; }
header { padding-top: 1.2rem; }
h1 { font-size: 1.5rem; margin: 0; line-height: 1.25; }
h2 { font-size: 1.15rem; margin: 0 0 .5rem; }
h3 { font-size: 1rem; margin: 1.3rem 0 .4rem; }
p { margin: .3rem 0; }
section { background: var(--sheet); border: 1px solid var(--line); border-radius: .6rem;
  padding: 1rem; margin: 1rem 0; }
footer { color: var(--faint); padding-bottom: 2rem; font-size: .85rem; }
.faint { color: var(--faint); }
.good { color: var(--good); }
.warn { color: var(--warn); }
.bad { color: var(--bad); font-weight: 600; }
.row { display: grid; grid-template-columns: 18rem minmax(0, 1fr) 4.5rem; gap: 0 .7rem;
  align-items: center; padding: .12rem 0; break-inside: avoid; }
.row .value { text-align: right; font-variant-numeric: tabular-nums; white-space: nowrap; }
.row small { color: var(--faint); }
.row small.bad { color: var(--bad); }
.name { font-weight: 600; overflow-wrap: anywhere; }
ul.rows { list-style: none; margin: 0; padding: 0; }
.rows .row { border-top: 1px solid var(--line); padding: .3rem 0; align-items: start;
  grid-template-columns: 19rem minmax(0, 1fr) auto; }
.hours { display: grid; grid-template-columns: repeat(48, minmax(0, 1fr)); }
.hours i { font: 11px/1.25rem ui-monospace, "DejaVu Sans Mono", Menlo, Consolas, monospace;
  text-align: center; background: var(--none); border: 0 solid var(--sheet);
  border-width: 0 1px 0 0; height: 1.25rem; overflow: hidden; }
.hours i:nth-child(6n) { border-right-width: 3px; }
.hours .a { background: var(--cell-good); }
.hours .f { background: var(--cell-few); }
.hours .m { background: var(--cell-many); }
.hours .h { background: var(--cell-most); color: #000; }
.hours .x { background: var(--cell-all); color: var(--on-all); font-weight: 700; }
@media (prefers-color-scheme: dark) { .hours .h { color: #fff; } }
.axis { color: var(--faint); font-size: .72rem; line-height: 1.15; }
.axis span { grid-column: span 6; white-space: pre-line; }
.legend { display: flex; flex-wrap: wrap; gap: .2rem 1rem; padding: 0; margin: .5rem 0 0;
  list-style: none; font-size: .85rem; color: var(--faint); }
.legend .hours { display: inline-grid; grid-template-columns: 1.1rem; vertical-align: middle;
  color: var(--text); }
.bar { position: relative; height: 1rem; background: var(--none); border-radius: .2rem; }
.bar span { position: absolute; top: 0; bottom: 0; background: var(--accent-faint);
  min-width: 2px; border-radius: .2rem; }
.bar b { position: absolute; top: 0; bottom: 0; width: 3px; margin-left: -1px;
  background: var(--accent); }
.times .row { grid-template-columns: 18rem minmax(0, 1fr) 11rem; }
table { border-collapse: collapse; width: 100%; font-size: .9rem; }
caption { text-align: left; color: var(--faint); padding-bottom: .4rem; }
th, td { text-align: left; padding: .3rem .5rem; border-bottom: 1px solid var(--line);
  vertical-align: top; }
th { font-weight: 600; color: var(--faint); overflow-wrap: normal; }
td.number { white-space: nowrap; }
.number { text-align: right; font-variant-numeric: tabular-nums; }
@media screen and (max-width: 60rem) {
  thead { position: absolute; width: 1px; height: 1px; overflow: hidden;
    clip-path: inset(50%); }
  table, caption, tbody, tr, td { display: block; width: 100%; }
  tr { border-top: 2px solid var(--line); padding: .4rem 0; }
  td, td.number { display: grid; grid-template-columns: 8rem minmax(0, 1fr); text-align: left;
    border: 0; padding: .1rem 0; }
  td::before { content: attr(data-label); color: var(--faint); }
  td:empty { display: none; }
}
@media screen and (max-width: 56rem) {
  header, main, footer { padding-left: .6rem; padding-right: .6rem; }
  section { padding: .7rem .6rem; }
  .row, .rows .row, .times .row { grid-template-columns: minmax(0, 1fr) auto; padding: .3rem 0; }
  .row .wide { grid-column: 1 / -1; grid-row: 2; }
  .hours i { font-size: 9px; }
  .hours i, .hours i:nth-child(6n) { border-right-width: 1px; }
}
@page { size: landscape; margin: 8mm; }
@media print {
  :root { --page: #fff; --sheet: #fff; --text: #000; --faint: #333; --line: #999;
    --good: #000; --bad: #000; --warn: #000; --accent: #000; --accent-faint: #ccc; --none: #fff;
    --cell-good: #e4f2e6; --cell-few: #fbe3b0; --cell-many: #f3b27a; --cell-most: #e07856;
    --cell-all: #e07856; --on-all: #000; color-scheme: light; font-size: 8pt; }
  body { font-size: 7pt; line-height: 1.15; }
  header, main, footer { max-width: none; padding: 0; }
  section { border: 0; padding: 0; margin: .3rem 0; break-inside: auto; }
  h2, h3 { break-after: avoid; margin: .3rem 0; }
  tr { break-inside: avoid; }
  table { font-size: 6pt; }
  th, td { padding: 0 .2rem; }
  td:nth-child(-n+3), td:nth-child(5), td:nth-child(6) { white-space: nowrap; }
  .row { grid-template-columns: 30rem minmax(0, 1fr) 4rem; padding: 0; }
  .row small.bad { font-size: 6pt; font-weight: 400; }
  .times { columns: 3; }
  .times h3 { column-span: all; }
  .times .row { grid-template-columns: 14rem minmax(0, 1fr) 8rem; }
  .hours i, .hours i:nth-child(6n) { color: #000; border: 1px solid #bbb; height: .95rem;
    border-width: 1px 0 1px 1px; font-size: 6pt; line-height: .9rem; }
  .hours .x { font-weight: 900; }
  .bar { height: .7rem; }
  .bar, .bar span { border: 1px solid #666; }
}
)";

}  // namespace tmsc::ctl
