"""States a graph as an ONNX model, op by op by the conventions of the import, so that it can be run."""

from __future__ import annotations

import json

import netforge
import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper

UNARY = {0: "Abs", 1: "Asin", 2: "Atan", 3: "Ceil", 4: "Cos", 5: "Exp", 6: "Floor", 7: "Log", 8: "Neg",
         9: "Not", 11: "Round", 13: "Sign", 14: "Sin", 15: "Sqrt"}  # fmt: skip
BINARY = {0: "Add", 1: "And", 2: "Div", 3: "Equal", 4: "Div", 5: "Mod", 6: "Greater", 7: "GreaterOrEqual",
          8: "Less", 9: "LessOrEqual", 10: "Max", 11: "Min", 12: "Mod", 13: "Mul", 15: "Or", 16: "Pow",
          18: "Sub", 19: "Xor"}  # fmt: skip
NEURON = {
    0: "Elu",
    1: "Gelu",
    2: "HardSigmoid",
    3: "HardSwish",
    4: "Relu",
    6: "Sigmoid",
    7: "Softplus",
    8: "Tanh",
}
SAME_NAME = {"Mean": "Mean", "Prelu": "PRelu", "Identity": "Identity", "Eltwise_Ternary": "Where"}
COORDINATES = ("half_pixel", "pytorch_half_pixel", "align_corners", "asymmetric", "half_pixel_symmetric")
ROUNDINGS = ("round_prefer_floor", "round_prefer_ceil", "floor", "ceil")
CONVOLUTIONS = ("Conv2d", "Conv3d", "DepthWiseConv2d", "TransposeConv2d", "TransposeConv3d")
ELEM_TYPES = {
    "FLOAT_32": TensorProto.FLOAT, "FLOAT_64": TensorProto.DOUBLE, "FLOAT_16": TensorProto.FLOAT16,
    "BFLOAT_16": TensorProto.BFLOAT16, "BOOL_8": TensorProto.BOOL,
    **{f"{kind}_{bits}": getattr(TensorProto, f"{kind}{bits}")
       for kind in ("INT", "UINT") for bits in (4, 8, 16, 32, 64)},
}  # fmt: skip


def elem_type(tensor: netforge.IrTensor) -> int:
    return ELEM_TYPES[tensor.dataType.name.removeprefix("ORLO_DATATYPE_")]


class Translator:
    def __init__(self, graph: netforge.IrGraph) -> None:
        self.graph = graph
        self.last = isinstance(graph.axisOrder, netforge.SpatialFirstAxisOrder)
        self.nodes: list[onnx.NodeProto] = []
        self.initializers: list[TensorProto] = []
        self.opsets = {"": 23}
        self.count = 0

    def model(self) -> onnx.ModelProto:
        for name, tensor in self.graph.getTensors().items():
            if tensor.isStatic():
                array = tensor.numpy()
                if elem_type(tensor) == TensorProto.BFLOAT16:
                    array = array.view(helper.tensor_dtype_to_np_dtype(TensorProto.BFLOAT16))
                self.initializers.append(numpy_helper.from_array(array.reshape(tensor.dims), name))
        for op in self.graph.ops:
            attributes = dict(op.attributes.items())
            names = [tensor.name for tensor in op.inputs], [tensor.name for tensor in op.outputs]
            if "onnx_opset" in attributes:
                self.plain(op, *names, attributes)
            else:
                self.typed(op, *names, attributes)
        values = [[self.value(t) for t in side] for side in (self.graph.graphInputs, self.graph.graphOutputs)]
        graph = helper.make_graph(self.nodes, "graph", *values, self.initializers)
        opsets = [helper.make_opsetid(domain, version) for domain, version in self.opsets.items()]
        return helper.make_model(graph, opset_imports=opsets, ir_version=11)

    def value(self, tensor: netforge.IrTensor) -> onnx.ValueInfoProto:
        dims = [None if axis in tensor.dynamicAxes else size for axis, size in enumerate(tensor.dims)]
        return helper.make_tensor_value_info(tensor.name, elem_type(tensor), dims)

    def fresh(self) -> str:
        self.count += 1
        return f"__{self.count}"

    def constant(self, array: np.ndarray) -> str:
        name = self.fresh()
        self.initializers.append(numpy_helper.from_array(np.asarray(array), name))
        return name

    def add(self, op_type: str, inputs: list[str], outputs: list[str], **attributes: object) -> None:
        self.nodes.append(helper.make_node(op_type, inputs, outputs, **attributes))

    def step(self, op_type: str, inputs: list[str], **attributes: object) -> str:
        name = self.fresh()
        self.add(op_type, inputs, [name], **attributes)
        return name

    def words(self, attribute: netforge.IrStaticTensor) -> list[int]:
        """The 32-bit words of a constant, as signed numbers."""
        return [int(word) for word in attribute.numpy().reshape(-1).view(np.int32)]

    def ints(self, attribute: netforge.IrStaticTensor) -> str:
        return self.constant(np.array(self.words(attribute), np.int64))

    def channels_first(self, name: str, rank: int) -> str:
        return self.step("Transpose", [name], perm=[0, rank - 1, *range(1, rank - 1)]) if self.last else name

    def plain(self, op: netforge.IrOp, inputs: list[str], outputs: list[str], attributes: dict) -> None:
        domain, version = attributes.get("onnx_domain", ""), attributes["onnx_opset"]
        self.opsets[domain] = max(self.opsets.get(domain, 1), version)
        op_type = op.type.removeprefix("Onnx") if not domain else op.type.removeprefix(f"{domain}.")
        kinds = onnx.defs.get_schema(op_type, version, domain).attributes
        places = self.places(attributes, "onnx_input_positions", len(inputs))
        scalars = self.words(attributes["onnx_scalar_inputs"]) if "onnx_scalar_inputs" in attributes else ()
        for index, place in enumerate(places):
            if place in scalars:
                inputs[index] = self.step("Reshape", [inputs[index], self.constant(np.zeros(0, np.int64))])
        result_places = self.places(attributes, "onnx_output_positions", len(outputs))
        node = helper.make_node(
            op_type, spread(inputs, places), spread(outputs, result_places), domain=domain
        )
        for name, value in attributes.items():
            if name.startswith("onnx_"):
                continue
            kind = kinds[name].type.name
            if kind == "TENSOR":
                value = numpy_helper.from_array(value.numpy())
            elif isinstance(value, netforge.IrStaticTensor):
                value = value.numpy().tolist() if kind in ("INTS", "FLOATS") else int(value.numpy()[0])
            elif kind == "STRINGS":
                value = json.loads(value)
            node.attribute.append(
                helper.make_attribute(name, value, attr_type=int(getattr(onnx.AttributeProto, kind)))
            )
        self.nodes.append(node)

    def places(self, attributes: dict, name: str, count: int) -> list[int]:
        return self.words(attributes[name]) if name in attributes else list(range(count))

    def typed(self, op: netforge.IrOp, inputs: list[str], outputs: list[str], attributes: dict) -> None:
        kind = op.type
        if kind in SAME_NAME:
            self.add(SAME_NAME[kind], inputs, outputs)
        elif kind in CONVOLUTIONS:
            self.convolution(op, inputs, outputs, attributes)
        elif kind in ("Pool", "Pool3d", "InstanceNorm", "Lrn", "DepthToSpace", "SpaceToDepth", "Resize"):
            self.spatial(op, inputs, outputs, attributes)
        else:
            getattr(self, f"op_{kind.lower()}")(op, inputs, outputs, attributes)

    def op_eltwise_unary(self, op, inputs, outputs, attributes) -> None:
        self.add(UNARY[attributes["operation"]], inputs, outputs)

    def op_eltwise_binary(self, op, inputs, outputs, attributes) -> None:
        code = attributes["operation"]
        self.add(BINARY[code], inputs, outputs, **({"fmod": 1} if code == 5 else {}))

    def op_elementwiseneuron(self, op, inputs, outputs, attributes) -> None:
        code = attributes["operation"]
        if code == 5:
            dtype = helper.tensor_dtype_to_np_dtype(elem_type(op.inputs[0]))
            bounds = [self.constant(np.array(attributes[name], dtype)) for name in ("min_value", "max_value")]
            self.add("Clip", [*inputs, *bounds], outputs)
            return
        names = {0: ("alpha",), 2: ("alpha", "beta")}.get(code, ())
        self.add(NEURON[code], inputs, outputs, **{name: attributes[name] for name in names})

    def op_thresholdedrelu(self, op, inputs, outputs, attributes) -> None:
        self.add("ThresholdedRelu", inputs, outputs, alpha=attributes["alpha"])

    def op_cast(self, op, inputs, outputs, attributes) -> None:
        self.add("Cast", inputs, outputs, to=elem_type(op.outputs[0]))

    def op_matmul(self, op, inputs, outputs, attributes) -> None:
        for index, tensor in enumerate(op.inputs):
            if attributes[f"transpose_in{index}"]:
                order = list(range(tensor.rank))
                order[-2:] = order[:-3:-1]
                inputs[index] = self.step("Transpose", [inputs[index]], perm=order)
        self.add("MatMul", inputs, outputs)

    def op_fullyconnected(self, op, inputs, outputs, attributes) -> None:
        assert attributes["transpose_b"] != self.last
        self.add("Gemm", inputs, outputs, transB=int(self.last))

    def convolution(self, op, inputs, outputs, attributes) -> None:
        rank = op.inputs[0].rank
        transposed = op.type.startswith("Transpose")
        weight = inputs[1]
        if self.last:
            order = [rank - 2, rank - 1] if transposed else [rank - 1, rank - 2]
            weight = self.step("Transpose", [weight], perm=[*order, *range(rank - 2)])
        values = self.window(attributes)
        values["group"] = attributes.get("group", op.inputs[0].dims[-1 if self.last else 1])
        if transposed:
            values["output_padding"] = self.words(attributes["output_padding"])
        strategy = attributes["padding_size_strategy"]
        if strategy != 5:
            del values["pads"]
            values["auto_pad"] = {1: "SAME_LOWER", 2: "SAME_UPPER"}[strategy]
        data = self.channels_first(inputs[0], rank)
        self.finish(
            op, "ConvTranspose" if transposed else "Conv", [data, weight, *inputs[2:]], outputs, values
        )

    def window(self, attributes: dict) -> dict:
        pads = attributes["pad_amount"].numpy()
        result = {
            "strides": self.words(attributes["stride"]),
            "pads": [int(pad) for pad in pads.T.reshape(-1)],
        }
        if "dilation" in attributes:
            result["dilations"] = self.words(attributes["dilation"])
        return result

    def finish(self, op, op_type: str, inputs: list[str], outputs: list[str], values: dict) -> None:
        if not self.last:
            self.add(op_type, inputs, outputs, **values)
            return
        result = self.step(op_type, inputs, **values)
        rank = op.outputs[0].rank
        self.add("Transpose", [result], outputs, perm=[0, *range(2, rank), 1])

    def spatial(self, op, inputs, outputs, attributes) -> None:
        rank = op.inputs[0].rank
        names = [self.channels_first(inputs[0], rank), *inputs[1:]]
        if op.type in ("Pool", "Pool3d"):
            op_type = attributes["pool_type"][:-2]
            values = self.window(attributes)
            values["kernel_shape"] = self.words(attributes["kernel_shape"])
            values["ceil_mode"] = int(attributes["ceil_mode"])
            values.update(
                {name: int(attributes[name]) for name in ("count_include_pad", "p") if name in attributes}
            )
        elif op.type == "Resize":
            op_type = "Resize"
            values = self.resize(op, names, attributes)
        elif op.type in ("DepthToSpace", "SpaceToDepth"):
            op_type = op.type
            values = {"blocksize": self.words(attributes["block_size"])[0]}
            if attributes["mode"] or op.type == "DepthToSpace":
                values["mode"] = ("DCR", "CRD")[attributes["mode"]]
                self.opsets[""] = max(self.opsets[""], 26) if op.type == "SpaceToDepth" else self.opsets[""]
        else:
            op_type = {"InstanceNorm": "InstanceNormalization", "Lrn": "LRN"}[op.type]
            values = {name: value for name, value in attributes.items() if name != "packageName"}
        self.finish(op, op_type, names, outputs, values)

    def resize(self, op, names: list[str], attributes: dict) -> dict:
        if "scales" in attributes:
            scales = np.concatenate(([1, 1], attributes["scales"].numpy())).astype(np.float32)
            names += ["", self.constant(scales)]
        else:
            dims = list(op.outputs[0].dims)
            dims = [dims[0], dims[-1], *dims[1:-1]] if self.last else dims
            names += ["", "", self.constant(np.array(dims, np.int64))]
        values = {
            "mode": ("nearest", "linear", "cubic")[attributes["interpolation_mode"]],
            "coordinate_transformation_mode": COORDINATES[attributes["transformation_mode"]],
            "antialias": int(attributes["antialias"]),
            "exclude_outside": int(attributes["exclude_outside"]),
        }
        if "nearest_mode" in attributes:
            values["nearest_mode"] = ROUNDINGS[attributes["nearest_mode"]]
        if "cubic_coeff" in attributes:
            values["cubic_coeff_a"] = attributes["cubic_coeff"]
        return values

    def op_batchnorm(self, op, inputs, outputs, attributes) -> None:
        rank = op.inputs[0].rank
        shape = self.constant(np.array([-1] if self.last and rank > 2 else [-1] + [1] * (rank - 2)))
        gamma, beta = (self.step("Reshape", [name, shape]) for name in inputs[1:])
        self.add("Add", [self.step("Mul", [inputs[0], gamma]), beta], outputs)

    def op_layernorm(self, op, inputs, outputs, attributes) -> None:
        op_type = "LayerNormalization" if op.type == "LayerNorm" else "RMSNormalization"
        axis = self.words(attributes["axes"])[0]
        self.add(op_type, inputs, outputs, axis=axis, epsilon=attributes["epsilon"])

    op_rmsnorm = op_layernorm

    def op_l2norm(self, op, inputs, outputs, attributes) -> None:
        self.add("LpNormalization", inputs, outputs, axis=attributes["axis"], p=2)

    def op_softmax(self, op, inputs, outputs, attributes) -> None:
        assert attributes["beta"] == 1.0
        self.add(op.type, inputs, outputs, axis=attributes["axis"])

    op_logsoftmax = op_softmax

    def op_transpose(self, op, inputs, outputs, attributes) -> None:
        self.add("Transpose", inputs, outputs, perm=self.words(attributes["perm"]))

    def op_reshape(self, op, inputs, outputs, attributes) -> None:
        self.add("Reshape", [inputs[0], self.ints(attributes["shape"])], outputs)

    def op_expanddims(self, op, inputs, outputs, attributes) -> None:
        self.add("Unsqueeze", [inputs[0], self.ints(attributes["axes"])], outputs)

    def op_expand(self, op, inputs, outputs, attributes) -> None:
        self.add("Expand", [inputs[0], self.ints(attributes["shape"])], outputs)

    def op_tile(self, op, inputs, outputs, attributes) -> None:
        self.add("Tile", [inputs[0], self.ints(attributes["multiples"])], outputs)

    def op_concat(self, op, inputs, outputs, attributes) -> None:
        self.add(op.type, inputs, outputs, axis=attributes["axis"])

    def op_gather(self, op, inputs, outputs, attributes) -> None:
        self.add(op.type, inputs, outputs, axis=attributes["axis"])

    op_gatherelements = op_gather

    def op_gathernd(self, op, inputs, outputs, attributes) -> None:
        self.add("GatherND", inputs, outputs, batch_dims=attributes["batch_dims"])

    def op_scatternd(self, op, inputs, outputs, attributes) -> None:
        self.add("ScatterND", inputs, outputs, reduction=attributes["reduction"])

    def op_split(self, op, inputs, outputs, attributes) -> None:
        axis = attributes["axis"]
        cuts = [0, *self.words(attributes["split_index"]), op.inputs[0].dims[axis]]
        self.add("Split", [inputs[0], self.constant(np.diff(cuts).astype(np.int64))], outputs, axis=axis)

    def op_stridedslice(self, op, inputs, outputs, attributes) -> None:
        rows = attributes["ranges"].numpy().astype(np.int64)
        for axis, (_, end, stride) in enumerate(rows):
            if stride < 0 and end == -1:
                rows[axis, 1] = -(1 << 62)
            if axis in op.inputs[0].dynamicAxes:
                rows[axis] = 0, 1 << 62, 1
        starts, ends, steps = (self.constant(np.ascontiguousarray(column)) for column in rows.T)
        self.add("Slice", [inputs[0], starts, ends, self.constant(np.arange(len(rows))), steps], outputs)

    def op_pad(self, op, inputs, outputs, attributes) -> None:
        pads = attributes["pad_amount"].numpy().astype(np.int64).T.reshape(-1)
        dtype = helper.tensor_dtype_to_np_dtype(elem_type(op.inputs[0]))
        value = self.constant(np.array(attributes["pad_constant_value"]).astype(dtype))
        mode = ("constant", "reflect", "edge", "wrap")[attributes["scheme"]]
        self.add("Pad", [inputs[0], self.constant(pads), value], outputs, mode=mode)

    def op_topk(self, op, inputs, outputs, attributes) -> None:
        count = self.constant(np.array([attributes["k"]], np.int64))
        self.add("TopK", [inputs[0], count], outputs, largest=int(attributes["largest"]))

    def op_cumulativesum(self, op, inputs, outputs, attributes) -> None:
        axis = self.constant(np.array(attributes["axis"], np.int64))
        flags = {name: int(attributes[name]) for name in ("exclusive", "reverse")}
        self.add("CumSum", [inputs[0], axis], outputs, **flags)

    def op_dequantize(self, op, inputs, outputs, attributes) -> None:
        shape = (-1,) if "axis" in attributes else ()
        dtype = helper.tensor_dtype_to_np_dtype(elem_type(op.inputs[0]))
        scale = self.constant(attributes["scale"].numpy().reshape(shape))
        zero = self.constant(attributes["zero_point"].numpy().astype(dtype).reshape(shape))
        axis = {"axis": attributes["axis"]} if "axis" in attributes else {}
        self.add("DequantizeLinear", [inputs[0], scale, zero], outputs, **axis)

    def reduction(self, op, op_type: str, inputs: list[str], outputs: list[str], **values: object) -> None:
        """A reduction of all axes leaves dims [1] in the graph and rank 0 in ONNX."""
        result = self.step(op_type, inputs, **values)
        self.add("Reshape", [result, self.constant(np.array(op.outputs[0].dims, np.int64))], outputs)

    def op_reduce(self, op, inputs, outputs, attributes) -> None:
        op_type = attributes.get("reduce_type", op.type)
        keep = int(attributes["keep_dims"])
        names = [inputs[0], self.ints(attributes["axes"])]
        if op.outputs[0].rank == op.inputs[0].rank or op.outputs[0].dynamicAxes:
            self.add(op_type, names, outputs, keepdims=keep)
        else:
            self.reduction(op, op_type, names, outputs, keepdims=keep)

    op_reducel2 = op_reduce

    def op_arg(self, op, inputs, outputs, attributes) -> None:
        op_type = {"Argmax": "ArgMax", "Argmin": "ArgMin"}[attributes["arg_type"]]
        values = {"axis": attributes["axis"], "keepdims": int(attributes["keep_dims"])}
        if op.outputs[0].dynamicAxes:
            self.add(op_type, inputs, outputs, **values)
        else:
            self.reduction(op, op_type, inputs, outputs, **values)


def spread(names: list[str], places: list[int]) -> list[str]:
    result = [""] * (max(places, default=-1) + 1)
    for name, place in zip(names, places, strict=True):
        result[place] = name
    return result


def graph_to_onnx(graph: netforge.IrGraph) -> onnx.ModelProto:
    return Translator(graph).model()
