# SPDX-License-Identifier: Apache-2.0
"""What a run of the benchmarks found: figures that are held against a goal, and
measurements that explain them. Both keep every single value."""
import statistics
from dataclasses import asdict, dataclass, field, fields


@dataclass
class Figure:
    """A ratio, or a size in MiB, of which less is better."""

    topic: str
    what: str
    label: str  # for the chart
    goal: float | None = None  # the greatest value that is good enough
    values: list[float] = field(default_factory=list)
    unit: str = ""
    note: str = ""  # why there are no values, or what bounds them

    @property
    def median(self):
        return statistics.median(self.values) if self.values else None

    @property
    def steady(self):
        """Whether the values lie so close together that one can be taken for all."""
        return len(self.values) < 2 or max(self.values) < 1.2 * min(self.values)

    @property
    def met(self):
        """None when there is no goal or no value."""
        if self.goal is None or not self.values:
            return None
        return self.median <= self.goal


@dataclass
class Measurement:
    topic: str
    what: str
    values: list[float]
    unit: str = "s"

    @property
    def median(self):
        return statistics.median(self.values)


@dataclass
class Results:
    machine: dict[str, str]
    repetitions: int
    figures: list[Figure] = field(default_factory=list)
    measurements: list[Measurement] = field(default_factory=list)
    failures: dict[str, str] = field(default_factory=dict)  # topic -> reason

    def add(self, found):
        for item in found:
            (self.figures if isinstance(item, Figure) else self.measurements).append(item)

    def as_json(self):
        document = asdict(self)
        for written, figure in zip(document["figures"], self.figures):
            written.update(median=figure.median, met=figure.met)
        for written, measurement in zip(document["measurements"], self.measurements):
            written.update(median=measurement.median)
        return document

    @classmethod
    def of_json(cls, document):
        """What as_json wrote; what follows from the values is computed anew."""
        def items(kind, name):
            known = {field.name for field in fields(kind)}
            return [kind(**{key: value for key, value in item.items() if key in known}) for item in document[name]]

        return cls(document["machine"], document["repetitions"], items(Figure, "figures"),
                   items(Measurement, "measurements"), document["failures"])


def ratios(subject, reference):
    """Each value to that of the same repetition, so that what slows both cancels out."""
    if len(subject) != len(reference):
        raise ValueError(f"{len(subject)} values to {len(reference)}")
    return [left / right for left, right in zip(subject, reference)]
